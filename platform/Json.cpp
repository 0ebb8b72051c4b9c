#include "platform/Json.h"

#include "platform/Error.h"

#include <QJsonParseError>

QByteArray writeJson(const QJsonObject &document)
{
    // QJsonObject keeps its keys sorted, so Indented is the pretty-printed, sorted form.
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}

QJsonDocument readJson(const QByteArray &bytes)
{
    QJsonParseError parseError;
    QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw Error::fromJson(parseError);
    return document;
}
