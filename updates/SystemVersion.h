#pragma once

#include <QString>

// The running kernel's release ("6.1.0-18-amd64"), which a feed's minimum and maximum system
// versions are compared with.
QString systemVersion();
