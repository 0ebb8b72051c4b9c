#pragma once

// A notify socket as systemd's manager keeps one, for the stand-in manager (unit-runner) and
// the tests: a datagram socket named by NOTIFY_SOCKET (a path, or "@name" in the abstract
// namespace) that learns which process sent each message. Plain POSIX, header only.

#include <cstddef>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace notify {

// The address for a NOTIFY_SOCKET value; its length, or 0 when the name cannot be one.
inline socklen_t address(const std::string &name, sockaddr_un &result)
{
    result = {};
    result.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof result.sun_path)
        return 0;
    std::memcpy(result.sun_path, name.data(), name.size());
    const bool abstract = name.front() == '@';
    if (abstract)
        result.sun_path[0] = '\0';
    return socklen_t(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1));
}

// A bound socket that receives the senders' credentials; -1 when that fails.
inline int listen(const std::string &name)
{
    sockaddr_un where;
    const socklen_t length = address(name, where);
    const int fd = length ? ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    const int on = 1;
    if (fd >= 0
        && (::bind(fd, reinterpret_cast<sockaddr *>(&where), length) != 0
            || ::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

struct Message
{
    bool received = false;
    std::string text;
    pid_t sender = 0;
};

// The next message, waiting at most timeoutMs for it.
inline Message receive(int fd, int timeoutMs)
{
    Message message;
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, timeoutMs) != 1)
        return message;
    char data[4096];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    iovec part{data, sizeof data};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t size = ::recvmsg(fd, &header, MSG_DONTWAIT);
    if (size < 0)
        return message;
    message.received = true;
    message.text.assign(data, std::size_t(size));
    for (cmsghdr *item = CMSG_FIRSTHDR(&header); item; item = CMSG_NXTHDR(&header, item))
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_CREDENTIALS)
            message.sender = reinterpret_cast<ucred *>(CMSG_DATA(item))->pid;
    return message;
}

} // namespace notify
