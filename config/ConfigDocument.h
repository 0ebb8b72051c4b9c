#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

using RadioEntry = QJsonObject;
using RadioEntries = QList<RadioEntry>;

// A serial that is not yet known; the next save fills it in by discovery.
inline const QString placeholderSerial = QStringLiteral("0000-0000-0000-0000");

// { "broadcastIntervalMs": 3000, "radios": [] }
QJsonObject emptyDocument();

// True for a non-empty object whose "radios" is an array of objects.
bool isConfiguration(const QJsonObject &document);

// Parses text into a configuration; throws Error for invalid JSON (including bytes that are not
// UTF-8 and unpaired surrogate escapes such as "\ud800", which the service refuses too), a
// non-object top level, or a document that is not a configuration ("Invalid configuration").
QJsonObject parseConfiguration(const QByteArray &bytes);

// The radios the table shows; empty for anything that is not a usable configuration.
RadioEntries entriesFromDraft(const QString &draft);

// The document text with "radios" replaced and every other key kept, in the one written form.
// Nothing when the draft is not a JSON object.
std::optional<QString> draftWithRadios(const QString &draft, const RadioEntries &radios);

// The whole document in the one written form.
QString documentText(const QJsonObject &document);

RadioEntries radiosOf(const QJsonObject &document);
QJsonObject withRadios(QJsonObject document, const RadioEntries &radios);

// The entry's value under key when it is a string, else nothing.
std::optional<QString> stringValue(const RadioEntry &entry, const QString &key);
