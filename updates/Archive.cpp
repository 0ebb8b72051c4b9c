#include "updates/Archive.h"

#include "updates/UnpackedLinks.h"
#include "updates/UpdateErrors.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <archive.h>
#include <archive_entry.h>

#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace {
struct ReadDeleter
{
    void operator()(archive *handle) const { archive_read_free(handle); }
};
struct WriteDeleter
{
    void operator()(archive *handle) const { archive_write_free(handle); }
};

Error failure(const QString &reason)
{
    return updateError(UpdateErrorCode::ExtractionFailed,
                       QStringLiteral("The update archive cannot be unpacked: %1.").arg(reason));
}

QString archiveMessage(archive *handle)
{
    const char *text = archive_error_string(handle);
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error");
}

// libarchive reports a failed write() on disk (a full disk, say) only as a warning and then
// pads the file to its size with zeros, so anything short of ARCHIVE_OK means the entry on
// disk is not what the archive holds.
void expectWritten(archive *writer, int status, const QString &entry)
{
    if (status == ARCHIVE_OK)
        return;
    const int error = archive_errno(writer);
    const QString reason = error > 0 ? QString::fromLocal8Bit(std::strerror(error)) : archiveMessage(writer);
    throw failure(QStringLiteral("the entry \u201c%1\u201d cannot be written: %2").arg(entry, reason));
}

QString entryPath(archive_entry *entry)
{
    if (const char *utf8 = archive_entry_pathname_utf8(entry))
        return QString::fromUtf8(utf8);
    if (const char *local = archive_entry_pathname(entry))
        return QFile::decodeName(local);
    return QString();
}

bool escapes(const QString &relative)
{
    return relative == u".." || relative.startsWith(QStringLiteral("../")) || QDir::isAbsolutePath(relative);
}

Error outsideTheArchive(const QString &link)
{
    return failure(QStringLiteral("the link \u201c%1\u201d points outside the archive's folder").arg(link));
}

struct UnpackedLink
{
    QString relative; // cleaned, relative to the destination
    QString written;  // as the archive names it
};

// Nothing is ever written through a link (whatever it points at), and nothing replaces
// what an earlier entry put in place: a folder may only be named again as a folder.
void refuseWhatIsInTheWay(const QString &root, const QString &relative, const QString &written, mode_t type)
{
    const QString link = firstLinkOnPath(root, relative);
    if (!link.isEmpty())
        throw failure(QStringLiteral("the entry \u201c%1\u201d would be written through the link \u201c%2\u201d").arg(written, link));
    struct stat existing{};
    if (::lstat(QFile::encodeName(root + u'/' + relative).constData(), &existing) == 0
        && !(type == AE_IFDIR && S_ISDIR(existing.st_mode)))
        throw failure(QStringLiteral("the entry \u201c%1\u201d appears twice").arg(written));
}

void checkWhereItLeads(const QString &root, const UnpackedLink &link)
{
    switch (linkReach(root, link.relative)) {
    case LinkReach::Inside:
        return;
    case LinkReach::OutsideItsFolder:
        throw failure(QStringLiteral("the link \u201c%1\u201d points outside \u201c%2\u201d")
                          .arg(link.written, link.relative.section(u'/', 0, 0)));
    case LinkReach::OutsideRoot:
        throw outsideTheArchive(link.written);
    case LinkReach::Unresolvable:
        throw failure(QStringLiteral("the link \u201c%1\u201d goes through too many links").arg(link.written));
    }
}

using Reader = std::unique_ptr<archive, ReadDeleter>;

// A reader of the archive formats an update may come in, not yet opened.
Reader newReader()
{
    Reader reader(archive_read_new());
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_gnutar(reader.get());
    archive_read_support_format_zip(reader.get());
    return reader;
}

// Unpacks the opened archive's entries into the destination, checking each.
void unpack(archive *reader, const QString &destination)
{
    std::unique_ptr<archive, WriteDeleter> writer(archive_write_disk_new());
    archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM
                                                     | ARCHIVE_EXTRACT_SECURE_SYMLINKS
                                                     | ARCHIVE_EXTRACT_SECURE_NODOTDOT);

    // Entries go below the destination's real path: links in the folders above it are the
    // user's own, links inside it are what the secure-symlinks option guards against. Entry
    // names are checked to be relative one by one below.
    const QString root = QFileInfo(destination).canonicalFilePath();
    if (root.isEmpty())
        throw failure(QStringLiteral("the folder %1 does not exist").arg(destination));
    int entries = 0;
    QList<UnpackedLink> links;
    for (;;) {
        archive_entry *entry = nullptr;
        const int status = archive_read_next_header(reader, &entry);
        if (status == ARCHIVE_EOF)
            break;
        if (status < ARCHIVE_WARN)
            throw failure(archiveMessage(reader));

        const QString written = entryPath(entry);
        const QString relative = QDir::cleanPath(written);
        if (written.isEmpty() || escapes(relative))
            throw failure(QStringLiteral("the entry \u201c%1\u201d lies outside the archive's folder").arg(written));
        if (relative == u".")
            continue;
        if (archive_entry_hardlink(entry))
            throw failure(QStringLiteral("the entry \u201c%1\u201d is a hard link").arg(written));
        const mode_t type = archive_entry_filetype(entry);
        if (type == AE_IFLNK) {
            const char *target = archive_entry_symlink(entry);
            const QString linkTarget = target ? QFile::decodeName(target) : QString();
            if (linkTarget.isEmpty() || QDir::isAbsolutePath(linkTarget))
                throw outsideTheArchive(written);
            links.append({relative, written});
        } else if (type != AE_IFREG && type != AE_IFDIR) {
            throw failure(QStringLiteral("the entry \u201c%1\u201d is neither a file, a folder nor a link").arg(written));
        }
        refuseWhatIsInTheWay(root, relative, written, type);

        // Owner access always, so that the staged copy can be cleaned up; never set-id bits.
        mode_t permissions = archive_entry_perm(entry) & 0777;
        permissions |= type == AE_IFDIR ? 0700 : 0600;
        archive_entry_set_perm(entry, permissions);
        archive_entry_set_pathname_utf8(entry, QString(root + u'/' + relative).toUtf8().constData());

        expectWritten(writer.get(), archive_write_header(writer.get(), entry), written);
        if (type == AE_IFREG) {
            const void *block = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            for (;;) {
                const int read = archive_read_data_block(reader, &block, &size, &offset);
                if (read == ARCHIVE_EOF)
                    break;
                if (read < ARCHIVE_WARN)
                    throw failure(archiveMessage(reader));
                expectWritten(writer.get(), archive_write_data_block(writer.get(), block, size, offset), written);
            }
        }
        expectWritten(writer.get(), archive_write_finish_entry(writer.get()), written);
        ++entries;
    }
    // Only now that every link exists can each be followed as the system will follow it; and
    // before the writer closes, since closing sets the folders' times and permissions.
    for (const UnpackedLink &link : std::as_const(links))
        checkWhereItLeads(root, link);
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        throw failure(archiveMessage(writer.get()));
    if (entries == 0)
        throw failure(QStringLiteral("it is empty"));
}
} // namespace

void extractArchive(const QByteArray &bytes, const QString &destination)
{
    const Reader reader = newReader();
    if (archive_read_open_memory(reader.get(), bytes.constData(), size_t(bytes.size())) != ARCHIVE_OK)
        throw failure(archiveMessage(reader.get()));
    unpack(reader.get(), destination);
}

void extractArchive(QFile &file, const QString &destination)
{
    constexpr size_t blockBytes = 64 * 1024;
    if (!file.isOpen() || !file.seek(0))
        throw failure(QStringLiteral("%1 cannot be read: %2").arg(file.fileName(), file.errorString()));
    const Reader reader = newReader();
    if (archive_read_open_fd(reader.get(), file.handle(), blockBytes) != ARCHIVE_OK)
        throw failure(archiveMessage(reader.get()));
    unpack(reader.get(), destination);
}
