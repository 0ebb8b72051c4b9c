#include "daemon/FolderLock.h"

#include "daemon/Failure.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr int retryMs = 10;
} // namespace

FolderLock::FolderLock(const QString &folder, int waitMs)
{
    const QString shown = QDir::toNativeSeparators(folder);
    m_fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_fd < 0)
        throw Failure{u"Cannot lock the folder %1: %2."_s.arg(shown, QString::fromLocal8Bit(std::strerror(errno)))};
    const QDeadlineTimer deadline(waitMs);
    while (::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EINTR)
            continue;
        if (error != EWOULDBLOCK || deadline.hasExpired()) {
            ::close(m_fd);
            throw Failure{error == EWOULDBLOCK
                              ? u"Another save into %1 has not finished within %2 seconds; nothing was changed."_s.arg(
                                    shown, QString::number(waitMs / 1000))
                              : u"Cannot lock the folder %1: %2."_s.arg(shown, QString::fromLocal8Bit(std::strerror(error)))};
        }
        QThread::msleep(retryMs);
    }
}

FolderLock::~FolderLock() { ::close(m_fd); }
