#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

enum class ArchiveFormat { TarXz, TarGz, Zip };

struct ArchiveEntry
{
    enum class Kind { File, Folder, Link };
    QString path; // inside the archive, as written
    Kind kind = Kind::File;
    int permissions = 0644;
    QByteArray contents;  // files
    QString linkTarget;   // links
    qint64 modified = 0;  // seconds since the epoch
};

// Writes the entries, in order, into a new archive; throws Error.
void writeArchive(const QList<ArchiveEntry> &entries, const QString &archivePath, ArchiveFormat format = ArchiveFormat::TarXz);

// The folder and everything in it, under the folder's own name, sorted by path, owned by
// uid/gid 0: what a release archive of Veldspar.app holds.
QList<ArchiveEntry> folderEntries(const QString &folder);
