#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <memory>
#include <optional>

// Pure Ed25519 (libsodium's crypto_sign_*_detached) over the exact bytes of a file.
constexpr int ed25519PublicKeyBytes = 32;
constexpr int ed25519SeedBytes = 32;
constexpr int ed25519SignatureBytes = 64;

struct Ed25519KeyPair
{
    QByteArray seed;      // 32 bytes: the private key as stored by the release tool
    QByteArray publicKey; // 32 bytes: SUPublicEDKey, base64-encoded
};

// A fresh key pair from the system's random source.
Ed25519KeyPair generateKeyPair();
// The key pair that belongs to a 32-byte seed; throws Error when the seed has another size.
Ed25519KeyPair keyPairFromSeed(const QByteArray &seed);
// The 64-byte signature of the message.
QByteArray signDetached(const QByteArray &message, const QByteArray &seed);
// Whether the 64-byte signature was made over exactly these bytes with the key's secret half.
bool verifyDetached(const QByteArray &message, const QByteArray &signature, const QByteArray &publicKey);

// The same check as verifyDetached for a message that comes in pieces, such as a file read a
// block at a time, so that its size costs no memory: pure Ed25519 hashes the whole message
// once, as SHA-512(R || public key || message), and that hash can be taken piece by piece;
// the curve equation [S]B = R + [hash]A is then checked once at the end. Every signature
// signDetached makes is accepted; a signature or key with a degenerate point (of small order,
// or outside the prime-order group) is refused.
class Ed25519Verifier
{
public:
    Ed25519Verifier(const QByteArray &signature, const QByteArray &publicKey);
    ~Ed25519Verifier();
    Ed25519Verifier(const Ed25519Verifier &) = delete;
    Ed25519Verifier &operator=(const Ed25519Verifier &) = delete;

    // The next piece of the message.
    void add(QByteArrayView piece);
    // Whether the signature was made over the pieces added, in order, with the key's secret
    // half. Ends the verification: afterwards it is false.
    bool matches();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Decodes a sparkle:edSignature value; nothing when it is not base64 of 64 bytes, and then
// `problem` says why.
std::optional<QByteArray> decodeSignature(const QString &base64, QString *problem = nullptr);
