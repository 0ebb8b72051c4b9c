#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

// Unpacks an archive (tar, compressed or not, or zip) held in memory into an existing empty
// folder: the bytes unpacked are the bytes that were verified. Only regular files, folders
// and symbolic links are accepted; absolute paths, "..", hard links and device files are
// refused. A link, followed through the links unpacked with it, must stay inside the
// top-level folder that holds it; no entry is written through a link or replaces an earlier
// one. Permissions keep their rwx bits only (no set-id bits). Throws Error.
void extractArchive(const QByteArray &archive, const QString &destination);

// The same for an archive in an open file, read from its start in blocks, whatever its size:
// the caller keeps the file open from verification to unpacking, so that the bytes unpacked
// are again the bytes that were verified.
void extractArchive(QFile &archive, const QString &destination);
