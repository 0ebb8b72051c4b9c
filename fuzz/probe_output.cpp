// What the service executable prints for "--discover", read the way the app reads it, and
// the radio it describes added to a configuration: the addition carries the answer into the
// saved document unchanged.

#include "FuzzSupport.h"

#include "config/ConfigDocument.h"
#include "discovery/ProbeOutput.h"
#include "discovery/RadioAddition.h"
#include "platform/Error.h"

#include <QJsonDocument>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    ProcessResult result;
    result.output = fuzzBytes(data, size);
    QJsonObject radio;
    try {
        radio = radioFromProbeOutput(result);
    } catch (const Error &) {
        return 0;
    }
    const QString address = QStringLiteral("10.8.0.20");
    const std::optional<QString> draft = draftWithNewRadio(documentText(emptyDocument()), address, radio);
    expect(draft.has_value(), "a radio is added to an empty configuration");
    const RadioEntries entries = entriesFromDraft(*draft);
    expect(entries.size() == 1 && entries.first() == radio, "the added radio is the probe's answer",
           QString::fromUtf8(QJsonDocument(radio).toJson(QJsonDocument::Compact)) + QStringLiteral("\nbecame\n") + *draft);
    expect(isAlreadyListed(entries, address, radio), "an added radio is listed");
    return 0;
}
