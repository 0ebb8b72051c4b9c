// The configuration document as the app reads it (config/) and as the service reads it
// (daemon/Configuration), each on its own: neither may crash, hang or leak on any text.

#include "FuzzSupport.h"

#include "config/ConfigDocument.h"
#include "config/Verification.h"
#include "daemon/Configuration.h"
#include "discovery/RadioAddition.h"
#include "platform/Error.h"

#include <QJsonObject>
#include <QStringDecoder>

namespace {
// A radio's answer as the service's discovery mode gives it.
QJsonObject answerFor(const QString &address)
{
    return QJsonObject{{QStringLiteral("ipAddress"), address},
                       {QStringLiteral("serialNumber"), QStringLiteral("0621-1104-6601-1641")},
                       {QStringLiteral("name"), QStringLiteral("Shack-6600")},
                       {QStringLiteral("model"), QStringLiteral("FLEX-6600")},
                       {QStringLiteral("callsign"), QStringLiteral("N0CALL")},
                       {QStringLiteral("version"), QStringLiteral("3.2.39.3374")},
                       {QStringLiteral("enabled"), true}};
}

void readAsTheApp(const QByteArray &bytes)
{
    try {
        radiosOf(parseConfiguration(bytes));
    } catch (const Error &) {
    }
    // The app holds the file as text when it is UTF-8 (reload) and works on that text.
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString draft = decoder(bytes);
    if (decoder.hasError())
        return;
    const RadioEntries entries = entriesFromDraft(draft);
    draftWithRadios(draft, entries);
    for (const RadioEntry &entry : entries)
        needsDiscovery(entry);
    try {
        draftWithNewRadio(draft, QStringLiteral("10.8.0.20"), answerFor(QStringLiteral("10.8.0.20")));
    } catch (const Error &) {
    }
    try {
        verifiedDocument(draft, answerFor);
    } catch (const Error &) {
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    readAsTheApp(bytes);
    readConfiguration(bytes);
    return 0;
}
