#pragma once

#include <QByteArray>
#include <QString>

// Unpacks an archive (tar, compressed or not, or zip) held in memory into an existing empty
// folder: the bytes unpacked are the bytes that were verified. Only regular files, folders
// and symbolic links that stay inside the folder are accepted; absolute paths, "..", hard
// links and device files are refused. Permissions keep their rwx bits only (no set-id bits).
// Throws Error.
void extractArchive(const QByteArray &archive, const QString &destination);
