#include "platform/RegularFile.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr qsizetype chunkSize = 64 * 1024;

FileContents refused(FileContents::Problem problem, const QString &message, const QString &reason = {})
{
    FileContents contents;
    contents.problem = problem;
    contents.reason = reason;
    contents.message = message;
    return contents;
}

FileContents systemFailure(const QString &path, int error)
{
    const QString reason = QString::fromLocal8Bit(std::strerror(error));
    return refused(error == ENOENT ? FileContents::Problem::Missing : FileContents::Problem::Unreadable,
                   u"Cannot read %1: %2."_s.arg(QDir::toNativeSeparators(path), reason), reason);
}

FileContents tooLarge(const QString &path)
{
    return refused(FileContents::Problem::TooLarge,
                   u"%1 is too large to be a configuration."_s.arg(QDir::toNativeSeparators(path)));
}

// Reads to the end, but stops as soon as more than limit bytes have come.
bool readAtMost(int fd, qint64 limit, qint64 sizeHint, QByteArray &bytes)
{
    bytes.reserve(qsizetype(std::min(sizeHint, limit) + 1));
    char chunk[chunkSize];
    while (bytes.size() <= limit) {
        const ssize_t got = ::read(fd, chunk, size_t(std::min<qint64>(chunkSize, limit + 1 - bytes.size())));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        bytes.append(chunk, qsizetype(got));
    }
    return true;
}
} // namespace

FileContents readRegularFile(const QString &path, qint64 limit)
{
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return systemFailure(path, errno);
    struct stat info{};
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        return systemFailure(path, error);
    }
    if (!S_ISREG(info.st_mode)) {
        ::close(fd);
        return refused(FileContents::Problem::NotRegular,
                       u"%1 is not a regular file."_s.arg(QDir::toNativeSeparators(path)));
    }
    if (info.st_size > limit) {
        ::close(fd);
        return tooLarge(path);
    }
    FileContents contents;
    const bool read = readAtMost(fd, limit, info.st_size, contents.bytes);
    const int error = errno;
    ::close(fd);
    if (!read)
        return systemFailure(path, error);
    // Files that report no size (those of /proc, say) are measured by what they give.
    if (contents.bytes.size() > limit)
        return tooLarge(path);
    return contents;
}
