#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

// The one form of every JSON document the app produces: indented, keys sorted.
QByteArray writeJson(const QJsonObject &document);
// Parses JSON text (an object or array at the top level only) that is valid UTF-8 and holds no
// unpaired surrogate escape; throws Error on failure.
QJsonDocument readJson(const QByteArray &bytes);
