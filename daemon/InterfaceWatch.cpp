#include "daemon/InterfaceWatch.h"

#include "daemon/Log.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr int pollMs = 2000;
// Messages read at one wake-up; a storm leaves the rest for the next one.
constexpr int mostReadsAtOnce = 64;

// A socket on which the kernel announces changes of links and of IPv4 addresses; -1 when the
// system refuses one.
int openInterfaceNews()
{
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0)
        return -1;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}
} // namespace

InterfaceWatch::InterfaceWatch(std::function<void()> changed, QObject *parent)
    : QObject(parent), m_changed(std::move(changed))
{
    m_socket = openInterfaceNews();
    if (m_socket < 0) {
        logLine(u"Cannot follow the network interfaces as they change (%1); looking at them every %2 seconds."_s.arg(
            QString::fromLocal8Bit(std::strerror(errno)), QString::number(pollMs / 1000)));
        m_poll.setInterval(pollMs);
        connect(&m_poll, &QTimer::timeout, this, [this] { m_changed(); });
        m_poll.start();
        return;
    }
    m_notifier = new QSocketNotifier(m_socket, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &InterfaceWatch::drain);
}

InterfaceWatch::~InterfaceWatch()
{
    delete m_notifier;
    if (m_socket >= 0)
        ::close(m_socket);
}

void InterfaceWatch::drain()
{
    // Which change it was does not matter: the interfaces are read afresh, at once (a beacon
    // sent out of an interface that has just gone would fail for nothing), once for all the
    // news at hand. A full queue (ENOBUFS) lost some news, which is news as well.
    char buffer[8192];
    for (int read = 0; read < mostReadsAtOnce; ++read) {
        const ssize_t received = ::recv(m_socket, buffer, sizeof buffer, 0);
        if (received < 0 && errno != EINTR && errno != ENOBUFS)
            break; // EAGAIN: all read
    }
    m_changed();
}
