// The app and the service must agree on a configuration the service accepts: the service
// writes the file that the app then shows, and the app saves through the service's import.
// For every document the service accepts:
//  - the app reads it, as file and as draft, with the same radios in the same order, the same
//    address, serial and identity texts, and the same "enabled" (only a JSON true counts);
//  - the app's save of it (verification, with a radio answering for every entry that needs
//    it) is again accepted by the service, with the same radios and interval.

#include "FuzzSupport.h"

#include "config/ConfigDocument.h"
#include "config/Verification.h"
#include "daemon/Configuration.h"
#include "platform/Error.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QStringDecoder>

namespace {
QString appText(const RadioEntry &entry, const QString &key)
{
    return stringValue(entry, key).value_or(QString());
}

QString shown(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes.left(2000));
}

void expectSameRadios(const Configuration &service, const RadioEntries &app, const QByteArray &bytes, const char *property)
{
    expect(service.radios.size() == app.size(), property,
           QStringLiteral("service %1 radios, app %2: %3").arg(service.radios.size()).arg(app.size()).arg(shown(bytes)));
    for (qsizetype i = 0; i < app.size(); ++i) {
        const ConfiguredRadio &radio = service.radios.at(i);
        const RadioEntry &entry = app.at(i);
        const bool same = radio.ipAddress == appText(entry, QStringLiteral("ipAddress"))
                          && radio.serialNumber == appText(entry, QStringLiteral("serialNumber"))
                          && radio.name == appText(entry, QStringLiteral("name"))
                          && radio.model == appText(entry, QStringLiteral("model"))
                          && radio.callsign == appText(entry, QStringLiteral("callsign"))
                          && radio.version == appText(entry, QStringLiteral("version"))
                          && radio.enabled == (entry.value(QStringLiteral("enabled")) == QJsonValue(true));
        expect(same, property, QStringLiteral("radio %1 differs: %2").arg(i + 1).arg(shown(bytes)));
    }
}

// The serial each address's radio has: the one its entries know, or a new one.
// Nothing when two entries know different serials at one address: no radio answers both,
// so no save of that document can pass.
std::optional<QMap<QString, QString>> serialsByAddress(const RadioEntries &entries)
{
    QMap<QString, QString> serials;
    for (const RadioEntry &entry : entries) {
        const QString address = appText(entry, QStringLiteral("ipAddress"));
        const QString known = appText(entry, QStringLiteral("serialNumber"));
        if (known.isEmpty() || known == placeholderSerial)
            continue;
        if (serials.contains(address) && serials.value(address) != known)
            return std::nullopt;
        serials.insert(address, known);
    }
    return serials;
}

// The answer the service's own discovery mode gives for the radio at an address.
QJsonObject answerFor(const QMap<QString, QString> &serials, const QString &address)
{
    const QString serial = serials.value(address, QStringLiteral("0621-1104-6601-1641"));
    return QJsonObject{{QStringLiteral("ipAddress"), address},
                       {QStringLiteral("serialNumber"), serial},
                       {QStringLiteral("name"), QStringLiteral("Shack-6600")},
                       {QStringLiteral("model"), QStringLiteral("FLEX-6600")},
                       {QStringLiteral("callsign"), QStringLiteral("N0CALL")},
                       {QStringLiteral("version"), QStringLiteral("3.2.39.3374")},
                       {QStringLiteral("enabled"), true}};
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    const auto byService = readConfiguration(bytes);
    if (!std::holds_alternative<Configuration>(byService))
        return 0;
    const Configuration &service = std::get<Configuration>(byService);

    RadioEntries fromFile;
    try {
        fromFile = radiosOf(parseConfiguration(bytes));
    } catch (const Error &error) {
        propertyBroken("the app reads every configuration the service accepts",
                       error.localizedDescription() + u'\n' + shown(bytes));
    }
    expectSameRadios(service, fromFile, bytes, "the app reads the service's radios as the service does");

    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString draft = decoder(bytes);
    // The service takes a byte that is not UTF-8 after a backslash (Qt's JSON reader allows any
    // escaped character), while the app treats such a file as unreadable: strict only.
    if (decoder.hasError()) {
        expect(!strictChecks(), "a configuration the service accepts is UTF-8 text", shown(bytes));
        return 0;
    }
    const RadioEntries fromDraft = entriesFromDraft(draft);
    expectSameRadios(service, fromDraft, bytes, "the app's draft shows the service's radios");

    const std::optional<QMap<QString, QString>> serials = serialsByAddress(fromDraft);
    if (!serials)
        return 0;
    QByteArray saved;
    try {
        saved = verifiedDocument(draft, [&](const QString &address) { return answerFor(*serials, address); });
    } catch (const Error &error) {
        propertyBroken("the app can save every configuration the service accepts",
                       error.localizedDescription() + u'\n' + shown(bytes));
    }
    const auto savedByService = readConfiguration(saved);
    expect(std::holds_alternative<Configuration>(savedByService), "the service accepts the app's save of its own configuration",
           (std::holds_alternative<QString>(savedByService) ? std::get<QString>(savedByService) : QString()) + u'\n'
               + shown(bytes) + QStringLiteral("\nsaved as\n") + shown(saved));
    const Configuration &resaved = std::get<Configuration>(savedByService);
    expect(resaved.broadcastIntervalMs == service.broadcastIntervalMs, "a save keeps the broadcast interval", shown(saved));
    expect(resaved.radios.size() == service.radios.size(), "a save keeps every radio", shown(saved));
    for (qsizetype i = 0; i < resaved.radios.size(); ++i) {
        expect(resaved.radios.at(i).ipAddress == service.radios.at(i).ipAddress
                   && resaved.radios.at(i).enabled == service.radios.at(i).enabled,
               "a save keeps each radio's address and whether it is announced", shown(saved));
        if (!needsDiscovery(fromDraft.at(i)))
            expect(resaved.radios.at(i).serialNumber == service.radios.at(i).serialNumber
                       && resaved.radios.at(i).version == service.radios.at(i).version,
                   "a save keeps an identified radio as it is", shown(saved));
    }
    return 0;
}
