#include "config/ConfigDocument.h"

#include "platform/Error.h"
#include "platform/Json.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QJsonValue>

#include <algorithm>

namespace {
// How many bytes a UTF-8 sequence with this first byte has; 0 when it cannot be a first byte.
qsizetype sequenceLength(uchar lead)
{
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0)
        return 2;
    if ((lead & 0xF0) == 0xE0)
        return 3;
    return (lead & 0xF8) == 0xF0 ? 4 : 0;
}

// Where the first byte that does not begin a valid UTF-8 sequence is; -1 when there is none.
qsizetype firstInvalidUtf8Byte(QByteArrayView bytes)
{
    qsizetype i = 0;
    while (i < bytes.size()) {
        const qsizetype length = sequenceLength(uchar(bytes.at(i)));
        if (length == 0 || i + length > bytes.size() || !bytes.sliced(i, length).isValidUtf8())
            return i;
        i += length;
    }
    return -1;
}

// As the parser's own errors read, for what Qt's parser lets through but the service refuses.
Error notUnicode(const QString &what)
{
    return Error(QStringLiteral("QJsonParseError"), int(QJsonParseError::IllegalUTF8String),
                 {{Error::descriptionKey, QStringLiteral("JSON text is not valid: %1.").arg(what)}});
}

// A text, key or value, that is not valid Unicode: an escape such as "\ud800" gives a lone
// surrogate, which UTF-8 cannot carry.
bool hasUnpairedSurrogate(const QJsonValue &value)
{
    if (value.isString())
        return !value.toString().isValidUtf16();
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        return std::any_of(array.begin(), array.end(), [](const QJsonValue &item) { return hasUnpairedSurrogate(item); });
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            if (!it.key().isValidUtf16() || hasUnpairedSurrogate(it.value()))
                return true;
    }
    return false;
}
} // namespace

QJsonObject emptyDocument()
{
    return QJsonObject{{QStringLiteral("broadcastIntervalMs"), 3000}, {QStringLiteral("radios"), QJsonArray()}};
}

bool isConfiguration(const QJsonObject &document)
{
    if (document.isEmpty())
        return false;
    const QJsonValue radios = document.value(QStringLiteral("radios"));
    if (!radios.isArray())
        return false;
    const QJsonArray list = radios.toArray();
    return std::all_of(list.begin(), list.end(), [](const QJsonValue &radio) { return radio.isObject(); });
}

QJsonObject parseConfiguration(const QByteArray &bytes)
{
    // Qt's parser takes any byte after a backslash; the file on disk must be UTF-8 to be read.
    if (const qsizetype invalid = firstInvalidUtf8Byte(bytes); invalid >= 0)
        throw Error::fromJson(QJsonParseError{int(invalid), QJsonParseError::IllegalUTF8String});
    const QJsonDocument document = readJson(bytes);
    if (hasUnpairedSurrogate(document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object())))
        throw notUnicode(QStringLiteral("a string holds an unpaired surrogate escape"));
    if (!document.isObject() || !isConfiguration(document.object()))
        throw Error::withMessage(QStringLiteral("Invalid configuration"));
    return document.object();
}

RadioEntries radiosOf(const QJsonObject &document)
{
    RadioEntries radios;
    const QJsonArray list = document.value(QStringLiteral("radios")).toArray();
    radios.reserve(list.size());
    for (const QJsonValue &radio : list)
        radios.append(radio.toObject());
    return radios;
}

QJsonObject withRadios(QJsonObject document, const RadioEntries &radios)
{
    QJsonArray list;
    for (const RadioEntry &radio : radios)
        list.append(radio);
    document.insert(QStringLiteral("radios"), list);
    return document;
}

RadioEntries entriesFromDraft(const QString &draft)
{
    try {
        return radiosOf(parseConfiguration(draft.toUtf8()));
    } catch (const Error &) {
        return {};
    }
}

QString documentText(const QJsonObject &document)
{
    return QString::fromUtf8(writeJson(document));
}

std::optional<QString> draftWithRadios(const QString &draft, const RadioEntries &radios)
{
    try {
        const QJsonDocument document = readJson(draft.toUtf8());
        if (!document.isObject())
            return std::nullopt;
        return documentText(withRadios(document.object(), radios));
    } catch (const Error &) {
        return std::nullopt;
    }
}

std::optional<QString> stringValue(const RadioEntry &entry, const QString &key)
{
    const QJsonValue value = entry.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}
