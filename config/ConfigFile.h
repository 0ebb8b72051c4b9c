#pragma once

#include <QJsonObject>
#include <QString>

// Reads a configuration file chosen by the user. Throws Error when it cannot be read, is larger
// than largestConfigurationFile, is not JSON, or is not a configuration ("Invalid configuration").
QJsonObject readConfigurationFile(const QString &path);
