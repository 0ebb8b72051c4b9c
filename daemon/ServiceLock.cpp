#include "daemon/ServiceLock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
// Between a refused lock and the question who holds it, the holder may let go; a few tries
// settle it.
constexpr int attempts = 3;

QString systemError(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

flock wholeFile(short type)
{
    flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return lock;
}

// Not followed through a link and never a FIFO or device: the file is truncated for the pid.
int openLockFile(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                          S_IRUSR | S_IWUSR);
    if (fd < 0)
        return -1;
    struct stat info{};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// For people who look: the holder's pid, as text. The system's answer to F_GETLK is what counts.
void writePid(int fd)
{
    const QByteArray text = QByteArray::number(qint64(::getpid())) + '\n';
    if (::ftruncate(fd, 0) == 0) {
        [[maybe_unused]] const ssize_t written = ::pwrite(fd, text.constData(), size_t(text.size()), 0);
    }
}

QString cannotLock(const QString &path, int error, const QString &configPath)
{
    return u"Cannot take the lock %1 (%2): a second service on the configuration %3 would not be noticed."_s.arg(
        QDir::toNativeSeparators(path), systemError(error), QDir::toNativeSeparators(configPath));
}

QString heldElsewhere(qint64 holder, const QString &path, const QString &configPath)
{
    const QString another =
        holder > 0 ? u"Another Veldspar service (process %1)"_s.arg(holder) : u"Another Veldspar service"_s;
    return u"%1 already runs with the configuration %2 (it holds %3). This one stops: one service per "
           u"configuration, so that each radio is announced once."_s.arg(
               another, QDir::toNativeSeparators(configPath), QDir::toNativeSeparators(path));
}
} // namespace

QString serviceLockPath(const QString &configPath)
{
    const QFileInfo info(configPath);
    return info.absolutePath() + u'/' + info.fileName() + u".lock"_s;
}

ServiceLock::ServiceLock(const QString &configPath)
{
    const QString path = serviceLockPath(configPath);
    // A configuration that does not exist yet is awaited; its folder is where the lock goes.
    QDir().mkpath(QFileInfo(path).absolutePath());
    m_fd = openLockFile(path);
    if (m_fd < 0) {
        m_message = cannotLock(path, errno, configPath);
        return;
    }
    for (int attempt = 0; attempt < attempts; ++attempt) {
        flock lock = wholeFile(F_WRLCK);
        if (::fcntl(m_fd, F_SETLK, &lock) == 0) {
            writePid(m_fd);
            m_outcome = Outcome::Held;
            return;
        }
        const int error = errno;
        if (error == EINTR)
            continue;
        if (error != EACCES && error != EAGAIN) {
            m_message = cannotLock(path, error, configPath);
            return;
        }
        flock holder = wholeFile(F_WRLCK);
        if (::fcntl(m_fd, F_GETLK, &holder) == 0 && holder.l_type == F_UNLCK)
            continue; // let go meanwhile
        m_holder = holder.l_type != F_UNLCK && holder.l_pid > 0 ? qint64(holder.l_pid) : 0;
        break;
    }
    m_outcome = Outcome::HeldElsewhere;
    m_message = heldElsewhere(m_holder, path, configPath);
}

ServiceLock::~ServiceLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}
