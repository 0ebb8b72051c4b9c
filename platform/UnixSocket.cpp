#include "platform/UnixSocket.h"

#include <cerrno>
#include <limits>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

UnixSocket::UnixSocket() : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

UnixSocket::~UnixSocket()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

int remainingMs(const QDeadlineTimer &deadline)
{
    return int(qMin<qint64>(qMax<qint64>(0, deadline.remainingTime()), std::numeric_limits<int>::max()));
}

bool waitFor(int fd, short events, const QDeadlineTimer &deadline)
{
    for (;;) {
        pollfd watched = {fd, events, 0};
        const int ready = ::poll(&watched, 1, remainingMs(deadline));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

bool sendAll(int fd, const QByteArray &bytes, const QDeadlineTimer &deadline)
{
    qsizetype sent = 0;
    while (sent < bytes.size()) {
        const ssize_t written = ::send(fd, bytes.constData() + sent, size_t(bytes.size() - sent), MSG_NOSIGNAL);
        if (written > 0)
            sent += written;
        else if (written < 0 && errno == EINTR)
            continue;
        else if (written < 0 && errno == EAGAIN && waitFor(fd, POLLOUT, deadline))
            continue;
        else
            return false;
    }
    return true;
}

qsizetype receiveSome(int fd, char *buffer, qsizetype room, const QDeadlineTimer &deadline)
{
    for (;;) {
        const ssize_t got = ::recv(fd, buffer, size_t(room), 0);
        if (got >= 0)
            return got;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN || !waitFor(fd, POLLIN, deadline))
            return 0;
    }
}
