#include "updates/Signature.h"

#include "updates/UpdateErrors.h"

#include <sodium.h>

namespace {
void initializeSodium()
{
    // sodium_init() is idempotent and thread-safe; a failure means no usable random source.
    if (sodium_init() < 0)
        qFatal("libsodium could not be initialised");
}

const unsigned char *bytes(const QByteArray &data)
{
    return reinterpret_cast<const unsigned char *>(data.constData());
}

static_assert(crypto_sign_PUBLICKEYBYTES == ed25519PublicKeyBytes);
static_assert(crypto_sign_SEEDBYTES == ed25519SeedBytes);
static_assert(crypto_sign_BYTES == ed25519SignatureBytes);
} // namespace

Ed25519KeyPair generateKeyPair()
{
    initializeSodium();
    QByteArray seed(ed25519SeedBytes, Qt::Uninitialized);
    randombytes_buf(seed.data(), size_t(seed.size()));
    return keyPairFromSeed(seed);
}

Ed25519KeyPair keyPairFromSeed(const QByteArray &seed)
{
    initializeSodium();
    if (seed.size() != ed25519SeedBytes)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("An Ed25519 private key has %1 bytes, this one has %2.")
                              .arg(ed25519SeedBytes)
                              .arg(seed.size()));
    QByteArray publicKey(ed25519PublicKeyBytes, Qt::Uninitialized);
    QByteArray secretKey(crypto_sign_SECRETKEYBYTES, Qt::Uninitialized);
    crypto_sign_seed_keypair(reinterpret_cast<unsigned char *>(publicKey.data()),
                             reinterpret_cast<unsigned char *>(secretKey.data()), bytes(seed));
    sodium_memzero(secretKey.data(), size_t(secretKey.size()));
    return {seed, publicKey};
}

QByteArray signDetached(const QByteArray &message, const QByteArray &seed)
{
    initializeSodium();
    if (seed.size() != ed25519SeedBytes)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("An Ed25519 private key has %1 bytes, this one has %2.")
                              .arg(ed25519SeedBytes)
                              .arg(seed.size()));
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    unsigned char secretKey[crypto_sign_SECRETKEYBYTES];
    crypto_sign_seed_keypair(publicKey, secretKey, bytes(seed));
    QByteArray signature(ed25519SignatureBytes, Qt::Uninitialized);
    crypto_sign_detached(reinterpret_cast<unsigned char *>(signature.data()), nullptr, bytes(message),
                         static_cast<unsigned long long>(message.size()), secretKey);
    sodium_memzero(secretKey, sizeof secretKey);
    return signature;
}

bool verifyDetached(const QByteArray &message, const QByteArray &signature, const QByteArray &publicKey)
{
    initializeSodium();
    if (signature.size() != ed25519SignatureBytes || publicKey.size() != ed25519PublicKeyBytes)
        return false;
    return crypto_sign_verify_detached(bytes(signature), bytes(message),
                                       static_cast<unsigned long long>(message.size()), bytes(publicKey))
        == 0;
}

std::optional<QByteArray> decodeSignature(const QString &base64, QString *problem)
{
    const QString trimmed = base64.trimmed();
    const auto decoded = QByteArray::fromBase64Encoding(trimmed.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (trimmed.isEmpty() || !decoded) {
        if (problem)
            *problem = QStringLiteral("it is not base64 text");
        return std::nullopt;
    }
    if (decoded.decoded.size() != ed25519SignatureBytes) {
        if (problem)
            *problem = QStringLiteral("an Ed25519 signature has %1 bytes, this one has %2")
                           .arg(ed25519SignatureBytes)
                           .arg(decoded.decoded.size());
        return std::nullopt;
    }
    return decoded.decoded;
}
