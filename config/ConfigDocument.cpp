#include "config/ConfigDocument.h"

#include "platform/Error.h"
#include "platform/Json.h"

#include <QJsonArray>
#include <QJsonValue>

#include <algorithm>

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
    const QJsonDocument document = readJson(bytes);
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
