#pragma once

#include <QString>

// "1.2 MB of 3.4 MB"; only the first part when the total is unknown.
QString formatByteProgress(qint64 received, qint64 expected);
