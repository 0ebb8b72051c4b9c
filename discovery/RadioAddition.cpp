#include "discovery/RadioAddition.h"

bool isAlreadyListed(const RadioEntries &radios, const QString &address, const QJsonObject &discovered)
{
    const QString serialKey = QStringLiteral("serialNumber");
    const std::optional<QString> serial = stringValue(discovered, serialKey);
    return std::any_of(radios.begin(), radios.end(), [&](const RadioEntry &radio) {
        return stringValue(radio, QStringLiteral("ipAddress")) == address || stringValue(radio, serialKey) == serial;
    });
}

std::optional<QString> draftWithNewRadio(const QString &draft, const QString &address, const QJsonObject &discovered)
{
    const QJsonObject document = parseConfiguration(draft.toUtf8());
    RadioEntries radios = radiosOf(document);
    if (isAlreadyListed(radios, address, discovered))
        return std::nullopt;
    radios.append(discovered);
    return documentText(withRadios(document, radios));
}
