#include "KeyFile.h"

#include "updates/Signature.h"
#include "updates/UpdateErrors.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

QString defaultKeyFilePath()
{
    return QDir::homePath() + QStringLiteral("/.config/veldspar-release/ed25519-private-key");
}

void writeKeyFile(const QString &path, const QByteArray &seed)
{
    if (QFileInfo::exists(path))
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("%1 already exists; it is not replaced. Remove it first if you really mean "
                                         "to retire that key.")
                              .arg(path));
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    // Created with owner-only permissions, so the key is never readable by others.
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFile::ReadOwner | QFile::WriteOwner))
        throw Error::fromFile(file, path);
    const QByteArray text = seed.toBase64() + '\n';
    if (file.write(text) != text.size() || !file.flush())
        throw Error::fromFile(file, path);
}

QByteArray readKeyFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("No signing key at %1 (%2). Create one with \u201cveldspar-release "
                                         "generate-keys\u201d or name one with --key-file.")
                              .arg(path, file.errorString()));
    const auto decoded = QByteArray::fromBase64Encoding(file.readAll().trimmed(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != ed25519SeedBytes)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("%1 does not hold a signing key: expected the base64 text of %2 bytes.")
                              .arg(path)
                              .arg(ed25519SeedBytes));
    return decoded.decoded;
}
