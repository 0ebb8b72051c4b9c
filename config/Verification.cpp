#include "config/Verification.h"

#include "config/ConfigDocument.h"
#include "platform/Error.h"
#include "platform/Json.h"

namespace {
const QString identityKeys[] = {
    QStringLiteral("name"), QStringLiteral("model"), QStringLiteral("serialNumber"),
    QStringLiteral("callsign"), QStringLiteral("version"),
};

QString knownSerial(const QJsonObject &radio)
{
    return stringValue(radio, QStringLiteral("serialNumber")).value_or(QString());
}

void takeIdentity(QJsonObject &radio, const QJsonObject &answer)
{
    for (const QString &key : identityKeys) {
        if (answer.contains(key))
            radio.insert(key, answer.value(key));
        else
            radio.remove(key);
    }
}
} // namespace

bool needsDiscovery(const QJsonObject &radio)
{
    const QString serial = knownSerial(radio);
    const QString version = stringValue(radio, QStringLiteral("version")).value_or(QString());
    return serial.isEmpty() || serial == placeholderSerial || version.isEmpty();
}

QByteArray verifiedDocument(const QString &snapshot, const Probe &probe)
{
    const QJsonObject document = parseConfiguration(snapshot.toUtf8());
    RadioEntries radios = radiosOf(document);

    for (QJsonObject &radio : radios) {
        if (!needsDiscovery(radio))
            continue;
        const std::optional<QString> address = stringValue(radio, QStringLiteral("ipAddress"));
        if (!address)
            throw Error::withMessage(QStringLiteral("Missing radio address"));

        const QJsonObject answer = probe(*address);

        const QString serial = knownSerial(radio);
        if (!serial.isEmpty() && serial != placeholderSerial) {
            const std::optional<QString> answered = stringValue(answer, QStringLiteral("serialNumber"));
            if (answered != serial)
                throw Error::withMessage(QStringLiteral("Radio serial does not match at ") + *address);
        }
        takeIdentity(radio, answer);
    }
    return writeJson(withRadios(document, radios));
}
