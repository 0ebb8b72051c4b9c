#include "daemon/AtomicFile.h"

#include "daemon/Failure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
QString systemError(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

[[noreturn]] void cannotWrite(const QString &path, int error)
{
    throw Failure{u"Cannot write %1: %2."_s.arg(QDir::toNativeSeparators(path), systemError(error))};
}

bool writeAll(int fd, const QByteArray &bytes)
{
    const char *data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, size_t(left));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        left -= written;
    }
    return true;
}

// Configurations and their backups say where the user's radios are: for the user's eyes alone,
// whatever the umask, and a replaced file too.
constexpr mode_t privateMode = 0600;

void syncFolder(const QString &folder)
{
    const int folderFd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd >= 0) {
        ::fsync(folderFd);
        ::close(folderFd);
    }
}

// mkstemp's six characters.
const QString temporarySuffix = u"\\.[A-Za-z0-9]{6}"_s;
} // namespace

PendingFile::PendingFile(const QString &path, const QByteArray &bytes) : m_path(path)
{
    const QFileInfo info(path);
    const QString folder = info.absolutePath();
    if (!QDir().mkpath(folder))
        throw Failure{u"Cannot create the folder %1."_s.arg(QDir::toNativeSeparators(folder))};

    m_target = QFile::encodeName(info.absoluteFilePath());
    QByteArray temporary = QFile::encodeName(folder + u"/."_s + info.fileName() + u".XXXXXX"_s);
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        cannotWrite(path, errno);

    const bool written = writeAll(fd, bytes) && ::fchmod(fd, privateMode) == 0 && ::fsync(fd) == 0;
    const int writeError = errno;
    if (::close(fd) != 0 || !written) {
        const int error = written ? errno : writeError;
        ::unlink(temporary.constData());
        cannotWrite(path, error);
    }
    m_temporary = temporary;
}

PendingFile::~PendingFile()
{
    if (!m_committed)
        ::unlink(m_temporary.constData());
}

void PendingFile::commit()
{
    if (::rename(m_temporary.constData(), m_target.constData()) != 0)
        cannotWrite(m_path, errno);
    m_committed = true;
    // The rename itself must reach the disk too.
    syncFolder(QFileInfo(m_path).absolutePath());
}

void replaceFileAtomically(const QString &path, const QByteArray &bytes)
{
    PendingFile file(path, bytes);
    file.commit();
}

void removeLeftoverTemporaries(const QString &folder, const QString &finalName)
{
    const QRegularExpression leftover(u"^\\.(?:"_s + finalName + u")"_s + temporarySuffix + u'$');
    const QDir dir(folder);
    for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden | QDir::NoSymLinks))
        if (leftover.match(name).hasMatch())
            QFile::remove(dir.filePath(name));
}
