#include "platform/Files.h"

#include "platform/Error.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void writeFileAtomically(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        throw Error::fromFile(file, path);
}

void writeNewPrivateFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFile::ReadOwner | QFile::WriteOwner)
        || file.write(bytes) != bytes.size() || !file.flush())
        throw Error::fromFile(file, path);
}

std::optional<QByteArray> readWholeFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return std::nullopt;
    return bytes;
}

std::optional<QByteArray> readSmallFile(const QString &path, qint64 limit)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return std::nullopt;
    struct stat info{};
    std::optional<QByteArray> result;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= limit) {
        QByteArray bytes(limit + 1, Qt::Uninitialized);
        qint64 done = 0;
        while (done <= limit) {
            const ssize_t n = ::read(fd, bytes.data() + done, size_t(limit + 1 - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                if (n == 0)
                    result = bytes.left(done); // the end of the file
                break;
            }
            done += n;
        }
    }
    ::close(fd);
    return result;
}

bool pathExists(const QString &path)
{
    // Whatever is there, a link to nothing included: one lstat instead of a stat and an lstat.
    struct stat status{};
    return !path.isEmpty() && ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

bool removePath(const QString &path)
{
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        QDir(path).removeRecursively();
    else
        QFile::remove(path);
    return !pathExists(path);
}
