#include "updates/Signature.h"

#include "updates/UpdateErrors.h"

#include <sodium.h>

#include <cstring>

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

// Whether the 32 bytes are a scalar below the group order, as a signature's S half must be.
bool isReducedScalar(const unsigned char *scalar)
{
    unsigned char wide[crypto_core_ed25519_NONREDUCEDSCALARBYTES] = {};
    std::memcpy(wide, scalar, crypto_core_ed25519_SCALARBYTES);
    unsigned char reduced[crypto_core_ed25519_SCALARBYTES];
    crypto_core_ed25519_scalar_reduce(reduced, wide);
    return std::memcmp(reduced, scalar, sizeof reduced) == 0;
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

struct Ed25519Verifier::State
{
    crypto_hash_sha512_state hash;
    unsigned char signature[crypto_sign_BYTES];
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    bool open = false; // well-formed, and not yet ended
};

Ed25519Verifier::Ed25519Verifier(const QByteArray &signature, const QByteArray &publicKey)
    : m_state(std::make_unique<State>())
{
    initializeSodium();
    if (signature.size() != ed25519SignatureBytes || publicKey.size() != ed25519PublicKeyBytes)
        return;
    State &state = *m_state;
    std::memcpy(state.signature, signature.constData(), sizeof state.signature);
    std::memcpy(state.publicKey, publicKey.constData(), sizeof state.publicKey);
    crypto_hash_sha512_init(&state.hash);
    crypto_hash_sha512_update(&state.hash, state.signature, 32); // R
    crypto_hash_sha512_update(&state.hash, state.publicKey, sizeof state.publicKey);
    state.open = true;
}

Ed25519Verifier::~Ed25519Verifier() = default;

void Ed25519Verifier::add(QByteArrayView piece)
{
    if (m_state->open)
        crypto_hash_sha512_update(&m_state->hash, reinterpret_cast<const unsigned char *>(piece.data()),
                                  static_cast<unsigned long long>(piece.size()));
}

bool Ed25519Verifier::matches()
{
    State &state = *m_state;
    if (!state.open)
        return false;
    state.open = false;
    unsigned char digest[crypto_hash_sha512_BYTES];
    crypto_hash_sha512_final(&state.hash, digest);
    unsigned char h[crypto_core_ed25519_SCALARBYTES];
    crypto_core_ed25519_scalar_reduce(h, digest);

    const unsigned char *r = state.signature;
    const unsigned char *s = state.signature + 32;
    if (!isReducedScalar(s) || !crypto_core_ed25519_is_valid_point(r))
        return false;
    // [S]B - [h]A must be R. The multiplications refuse a key that is not a valid point of
    // the prime-order group.
    unsigned char sB[crypto_core_ed25519_BYTES];
    unsigned char hA[crypto_core_ed25519_BYTES];
    unsigned char expected[crypto_core_ed25519_BYTES];
    if (crypto_scalarmult_ed25519_base_noclamp(sB, s) != 0 || crypto_scalarmult_ed25519_noclamp(hA, h, state.publicKey) != 0
        || crypto_core_ed25519_sub(expected, sB, hA) != 0)
        return false;
    return crypto_verify_32(expected, r) == 0;
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
