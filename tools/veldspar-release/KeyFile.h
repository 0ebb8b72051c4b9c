#pragma once

#include <QByteArray>
#include <QString>

// The release signing key lives outside any repository: by default in
// ~/.config/veldspar-release/ed25519-private-key, as the base64 text of its 32-byte seed,
// readable by its owner only.
QString defaultKeyFilePath();

// Writes a new seed; refuses to overwrite an existing file. Throws Error.
void writeKeyFile(const QString &path, const QByteArray &seed);
// Reads a seed; throws Error naming the file and what is wrong.
QByteArray readKeyFile(const QString &path);
