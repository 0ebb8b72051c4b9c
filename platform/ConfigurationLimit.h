#pragma once

#include <QtGlobal>

// The largest configuration file that the app and the service read, import or accept: far
// beyond any real one (ten thousand radios take about 2.3 MB), and it keeps a file picked by
// mistake (a video, a disk image, a device) from being read whole. One value for both, so a
// file one of them accepts is never refused by the other.
inline constexpr qint64 largestConfigurationFile = 16 * 1024 * 1024;
