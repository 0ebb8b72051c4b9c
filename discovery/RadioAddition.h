#pragma once

#include "config/ConfigDocument.h"

#include <QJsonObject>
#include <QString>

#include <optional>

// A radio is already listed when an entry has the address the user typed, or the same
// serial number as the answer, where a missing serial equals a missing serial.
bool isAlreadyListed(const RadioEntries &radios, const QString &address, const QJsonObject &discovered);

// The draft with the discovered radio appended to "radios", in the one written form; nothing
// when the radio is already listed. Throws Error when the draft is not JSON or not a
// configuration ("Invalid configuration").
std::optional<QString> draftWithNewRadio(const QString &draft, const QString &address, const QJsonObject &discovered);
