#include "ArchiveWriter.h"

#include "updates/UpdateErrors.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {
struct WriterDeleter
{
    void operator()(archive *handle) const { archive_write_free(handle); }
};
struct EntryDeleter
{
    void operator()(archive_entry *entry) const { archive_entry_free(entry); }
};

Error failure(const QString &archivePath, archive *handle)
{
    const char *text = archive_error_string(handle);
    return updateError(UpdateErrorCode::ExtractionFailed,
                       QStringLiteral("The archive %1 cannot be written: %2.")
                           .arg(archivePath, text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error")));
}
} // namespace

void writeArchive(const QList<ArchiveEntry> &entries, const QString &archivePath, ArchiveFormat format)
{
    std::unique_ptr<archive, WriterDeleter> writer(archive_write_new());
    switch (format) {
    case ArchiveFormat::TarXz:
        archive_write_add_filter_xz(writer.get());
        archive_write_set_format_pax_restricted(writer.get());
        break;
    case ArchiveFormat::TarGz:
        archive_write_add_filter_gzip(writer.get());
        archive_write_set_format_pax_restricted(writer.get());
        break;
    case ArchiveFormat::Zip:
        archive_write_set_format_zip(writer.get());
        break;
    }
    if (archive_write_open_filename(writer.get(), QFile::encodeName(archivePath).constData()) != ARCHIVE_OK)
        throw failure(archivePath, writer.get());
    for (const ArchiveEntry &item : entries) {
        std::unique_ptr<archive_entry, EntryDeleter> entry(archive_entry_new());
        archive_entry_set_pathname_utf8(entry.get(), item.path.toUtf8().constData());
        archive_entry_set_uid(entry.get(), 0);
        archive_entry_set_gid(entry.get(), 0);
        archive_entry_set_mtime(entry.get(), time_t(item.modified), 0);
        switch (item.kind) {
        case ArchiveEntry::Kind::File:
            archive_entry_set_filetype(entry.get(), AE_IFREG);
            archive_entry_set_size(entry.get(), item.contents.size());
            break;
        case ArchiveEntry::Kind::Folder:
            archive_entry_set_filetype(entry.get(), AE_IFDIR);
            archive_entry_set_size(entry.get(), 0);
            break;
        case ArchiveEntry::Kind::Link:
            archive_entry_set_filetype(entry.get(), AE_IFLNK);
            archive_entry_set_symlink_utf8(entry.get(), item.linkTarget.toUtf8().constData());
            archive_entry_set_size(entry.get(), 0);
            break;
        }
        archive_entry_set_perm(entry.get(), mode_t(item.permissions));
        if (archive_write_header(writer.get(), entry.get()) != ARCHIVE_OK)
            throw failure(archivePath, writer.get());
        if (item.kind == ArchiveEntry::Kind::File && !item.contents.isEmpty()
            && archive_write_data(writer.get(), item.contents.constData(), size_t(item.contents.size())) < 0)
            throw failure(archivePath, writer.get());
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        throw failure(archivePath, writer.get());
}

QList<ArchiveEntry> folderEntries(const QString &folder)
{
    const QFileInfo root(folder);
    if (!root.isDir())
        throw updateError(UpdateErrorCode::ExtractionFailed, QStringLiteral("%1 is not a folder.").arg(folder));
    const QDir base = root.dir();
    QStringList paths{root.absoluteFilePath()};
    QDirIterator it(root.absoluteFilePath(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next();
    std::sort(paths.begin(), paths.end());

    QList<ArchiveEntry> entries;
    for (const QString &path : paths) {
        const QFileInfo info(path);
        ArchiveEntry entry;
        entry.path = base.relativeFilePath(path);
        entry.modified = info.lastModified().toSecsSinceEpoch();
        struct stat status{};
        if (lstat(QFile::encodeName(path).constData(), &status) != 0)
            throw updateError(UpdateErrorCode::ExtractionFailed, QStringLiteral("%1 cannot be read.").arg(path));
        entry.permissions = int(status.st_mode & 0777);
        if (info.isSymLink()) {
            entry.kind = ArchiveEntry::Kind::Link;
            // The link as written, not as resolved.
            QByteArray target(4096, '\0');
            const ssize_t length = readlink(QFile::encodeName(path).constData(), target.data(), size_t(target.size()));
            if (length < 0)
                throw updateError(UpdateErrorCode::ExtractionFailed, QStringLiteral("%1 cannot be read.").arg(path));
            entry.linkTarget = QFile::decodeName(target.left(length));
        } else if (info.isDir()) {
            entry.kind = ArchiveEntry::Kind::Folder;
        } else {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly))
                throw updateError(UpdateErrorCode::ExtractionFailed,
                                  QStringLiteral("%1 cannot be read: %2.").arg(path, file.errorString()));
            entry.contents = file.readAll();
        }
        entries.append(entry);
    }
    return entries;
}
