// The update signature as the feed gives it (sparkle:edSignature, base64 text) and the check of
// a message against it. Any text decodes to 64 bytes or to a named problem, and exactly when it
// is base64 of 64 bytes; a signature verifies over exactly the bytes it was made over, and no
// single changed bit of message or signature passes.

#include "FuzzSupport.h"

#include "updates/Signature.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {
// A fixed key: the harness checks the verification, not the key generation.
const Ed25519KeyPair &keyPair()
{
    static const Ed25519KeyPair pair = keyPairFromSeed(QByteArray(ed25519SeedBytes, '\x2a'));
    return pair;
}

void checkDecoding(FuzzedDataProvider &input)
{
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QString text = QString::fromUtf8(rest.data(), qsizetype(rest.size()));
    QString problem;
    const std::optional<QByteArray> signature = decodeSignature(text, &problem);

    const QByteArray trimmed = text.trimmed().toLatin1();
    const auto reference = QByteArray::fromBase64Encoding(trimmed, QByteArray::AbortOnBase64DecodingErrors);
    const bool expected = !trimmed.isEmpty() && reference && reference.decoded.size() == ed25519SignatureBytes;
    expectThat(signature.has_value() == expected, "a signature decodes exactly when it is base64 of 64 bytes",
               [&] { return QString(text); });
    if (!signature) {
        expectThat(!problem.isEmpty(), "a refused signature comes with its problem", [&] { return QString(text); });
        return;
    }
    expectThat(signature->size() == ed25519SignatureBytes, "a decoded signature has 64 bytes",
               [&] { return QString(text); });
    expectThat(decodeSignature(QString::fromLatin1(signature->toBase64())) == signature,
               "a decoded signature, encoded again, decodes to itself", [&] { return QString(text); });
}

void checkRoundTrip(FuzzedDataProvider &input)
{
    const std::string raw = input.ConsumeBytesAsString(ed25519SignatureBytes);
    if (raw.size() != ed25519SignatureBytes)
        return;
    const QByteArray bytes(raw.data(), qsizetype(raw.size()));
    const QString padding = QString(input.ConsumeIntegralInRange<int>(0, 3), u' ');
    const QString text = padding + QString::fromLatin1(bytes.toBase64()) + u'\n' + padding;
    expectThat(decodeSignature(text) == bytes, "base64 of 64 bytes, with blanks around it, decodes to them",
               [&] { return QString(text); });
    const QString unpadded = QString::fromLatin1(bytes.toBase64(QByteArray::OmitTrailingEquals));
    const std::optional<QByteArray> fromUnpadded = decodeSignature(unpadded);
    expectThat(!fromUnpadded || *fromUnpadded == bytes,
               "base64 without its padding decodes to the same bytes or not at all", [&] { return QString(unpadded); });
}

void checkVerification(FuzzedDataProvider &input)
{
    const std::size_t flip = input.ConsumeIntegral<std::uint16_t>();
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray message(rest.data(), qsizetype(rest.size()));
    const QByteArray signature = signDetached(message, keyPair().seed);
    expect(signature.size() == ed25519SignatureBytes, "a signature has 64 bytes");
    expect(verifyDetached(message, signature, keyPair().publicKey), "a signature verifies over its message");

    QByteArray otherSignature = signature;
    otherSignature[qsizetype(flip / 8 % ed25519SignatureBytes)] ^= char(1 << (flip % 8));
    expect(!verifyDetached(message, otherSignature, keyPair().publicKey), "a changed signature does not verify");
    if (!message.isEmpty()) {
        QByteArray otherMessage = message;
        otherMessage[qsizetype(flip / 8 % std::size_t(message.size()))] ^= char(1 << (flip % 8));
        expect(!verifyDetached(otherMessage, signature, keyPair().publicKey), "a changed message does not verify");
    }
    expect(!verifyDetached(message, signature.left(ed25519SignatureBytes - 1), keyPair().publicKey),
           "a short signature does not verify");
    expect(!verifyDetached(message, signature, keyPair().publicKey + '\0'), "a key of another size verifies nothing");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
    case 1:
        checkDecoding(input);
        break;
    case 2:
        checkRoundTrip(input);
        break;
    default:
        checkVerification(input);
        break;
    }
    return 0;
}
