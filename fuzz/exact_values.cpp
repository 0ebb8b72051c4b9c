// The check for values the app cannot keep exactly (config/ExactValues) on any text: it may not
// crash or hang, a number it reports is in the text, and a document it passes comes out of Qt's
// rewrite with nothing to report either.

#include "FuzzSupport.h"

#include "config/ExactValues.h"
#include "platform/Error.h"
#include "platform/Json.h"

#include <QStringDecoder>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder(bytes);
    if (decoder.hasError())
        return 0;
    const std::optional<InexactValue> found = firstInexactValue(text);
    if (found) {
        // A key is reported decoded, escapes and all, so only a number is its spelling in the text.
        expect(found->kind == InexactValue::Kind::RepeatedKey || text.contains(found->number),
               "the reported number is in the text", found->number);
        return 0;
    }
    try {
        const QJsonDocument document = readJson(bytes);
        if (!document.isObject())
            return 0;
        const QString rewritten = QString::fromUtf8(writeJson(document.object()));
        expect(!firstInexactValue(rewritten), "a rewrite of a passed document passes", rewritten);
    } catch (const Error &) {
    }
    return 0;
}
