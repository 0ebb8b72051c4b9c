#pragma once

#include <QJsonObject>
#include <QString>

// A configuration file larger than this is refused unread: ten thousand radios take about
// 2.3 MB, while a file picked by mistake (a video, a disk image) could be any size.
inline constexpr qint64 configurationFileLimit = 4 * 1024 * 1024;

// Reads a configuration file chosen by the user. Throws Error when it cannot be read, is too
// large, is not JSON, or is not a configuration ("Invalid configuration").
QJsonObject readConfigurationFile(const QString &path);
