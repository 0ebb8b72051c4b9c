#pragma once

#include <QByteArray>
#include <QDeadlineTimer>

#include <utility>

// A non-blocking Unix stream socket, closed when it goes out of scope, and the bounded waits
// that talking over one needs: nothing here waits past its deadline.
class UnixSocket
{
public:
    UnixSocket();
    ~UnixSocket();
    UnixSocket(const UnixSocket &) = delete;
    UnixSocket &operator=(const UnixSocket &) = delete;

    int fd() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

// What is left of the deadline, as poll() takes it.
int remainingMs(const QDeadlineTimer &deadline);

// Whether one of the events (POLLIN, POLLOUT) came on fd before the deadline.
bool waitFor(int fd, short events, const QDeadlineTimer &deadline);

// Sends all of bytes before the deadline; false when the peer is gone or too slow.
bool sendAll(int fd, const QByteArray &bytes, const QDeadlineTimer &deadline);

// Receives at most room bytes, waiting for the first until the deadline; 0 when the peer
// closed, failed or was too slow.
qsizetype receiveSome(int fd, char *buffer, qsizetype room, const QDeadlineTimer &deadline);
