#include "platform/Json.h"

#include "platform/Error.h"

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

QByteArray writeJson(const QJsonObject &document)
{
    // QJsonObject keeps its keys sorted, so Indented is the pretty-printed, sorted form.
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}

QJsonDocument readJson(const QByteArray &bytes)
{
    // Qt's parser takes any byte after a backslash, and escapes such as "\ud800" that no UTF-8
    // file can hold; the service refuses both, so the app must not read them either.
    if (const qsizetype invalid = firstInvalidUtf8Byte(bytes); invalid >= 0)
        throw Error::fromJson(QJsonParseError{int(invalid), QJsonParseError::IllegalUTF8String});
    QJsonParseError parseError;
    QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw Error::fromJson(parseError);
    if (hasUnpairedSurrogate(document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object())))
        throw notUnicode(QStringLiteral("a string holds an unpaired surrogate escape"));
    return document;
}
