#pragma once

#include <QByteArray>
#include <QString>

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

// Decodes a sparkle:edSignature value; nothing when it is not base64 of 64 bytes, and then
// `problem` says why.
std::optional<QByteArray> decodeSignature(const QString &base64, QString *problem = nullptr);
