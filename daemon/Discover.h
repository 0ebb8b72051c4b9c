#pragma once

#include <QString>

// "--discover ADDRESS": asks the radio at ADDRESS ("host" or "host:port") who it is and prints
// progress lines, then the radio as one JSON object on one line. On failure prints what went
// wrong in a radio operator's words. Returns the exit status.
int runDiscovery(const QString &address);
