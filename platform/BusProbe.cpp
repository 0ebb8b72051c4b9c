#include "platform/BusProbe.h"
#include "platform/UnixSocket.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QFile>
#include <QSysInfo>
#include <QThread>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
// The socket address of one unix: entry, or nothing for any other transport. An abstract name
// starts with a zero byte and is as long as the name, not the whole field.
struct UnixAddress
{
    sockaddr_un address = {};
    socklen_t size = 0;
};

std::optional<UnixAddress> unixAddressOf(const QString &entry)
{
    if (!entry.startsWith(QStringLiteral("unix:")))
        return std::nullopt;
    for (const QString &pair : entry.mid(5).split(u',')) {
        const qsizetype equals = pair.indexOf(u'=');
        const QString key = pair.left(equals);
        if (equals < 0 || (key != QStringLiteral("path") && key != QStringLiteral("abstract")))
            continue;
        const QByteArray name = QByteArray::fromPercentEncoding(pair.mid(equals + 1).toUtf8());
        const bool abstract = key == QStringLiteral("abstract");
        UnixAddress target;
        target.address.sun_family = AF_UNIX;
        const size_t offset = abstract ? 1 : 0;
        if (name.isEmpty() || offset + size_t(name.size()) >= sizeof(target.address.sun_path))
            return std::nullopt;
        std::memcpy(target.address.sun_path + offset, name.constData(), size_t(name.size()));
        target.size = socklen_t(offsetof(sockaddr_un, sun_path) + offset + size_t(name.size()) + (abstract ? 0 : 1));
        return target;
    }
    return std::nullopt;
}

enum class Connected { Yes, Refused, Timeout };

Connected connectWithin(int fd, const UnixAddress &target, const QDeadlineTimer &deadline)
{
    for (;;) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&target.address), target.size) == 0 || errno == EISCONN)
            return Connected::Yes;
        // A daemon whose queue of connections is full takes them again once it reads; one that
        // has stopped never does.
        if (errno != EAGAIN && errno != EINTR)
            return Connected::Refused;
        if (deadline.hasExpired())
            return Connected::Timeout;
        QThread::msleep(5);
    }
}

// What arrives until a line ends (the authentication speaks in lines), or at least one byte
// when untilLineEnd is false; empty when nothing comes in time.
QByteArray receive(int fd, bool untilLineEnd, const QDeadlineTimer &deadline)
{
    constexpr qsizetype longest = 512;
    QByteArray received;
    while (received.size() < longest && (received.isEmpty() || (untilLineEnd && !received.endsWith("\r\n")))) {
        char chunk[longest];
        const qsizetype got = receiveSome(fd, chunk, longest - received.size(), deadline);
        if (got == 0)
            break;
        received.append(chunk, got);
    }
    return received;
}

// A field of a message header: its code, a one-letter signature and a string, aligned to 8.
void appendHeaderField(QByteArray &message, char code, char signature, const QByteArray &value)
{
    while (message.size() % 8 != 0)
        message.append('\0');
    message.append(code).append('\1').append(signature).append('\0');
    const quint32 length = quint32(value.size());
    message.append(reinterpret_cast<const char *>(&length), sizeof(length));
    message.append(value).append('\0');
}

// The bus's Hello, the first call every client makes, in this machine's byte order.
QByteArray helloMessage()
{
    const char order = QSysInfo::ByteOrder == QSysInfo::LittleEndian ? 'l' : 'B';
    QByteArray message;
    message.append(order).append('\1' /* method call */).append('\0' /* no flags */).append('\1' /* version */);
    const quint32 bodyLength = 0;
    const quint32 serial = 1;
    message.append(reinterpret_cast<const char *>(&bodyLength), sizeof(bodyLength));
    message.append(reinterpret_cast<const char *>(&serial), sizeof(serial));
    message.append(4, '\0'); // the fields' length, known once they are written

    const QByteArray bus = QByteArrayLiteral("org.freedesktop.DBus");
    appendHeaderField(message, 1, 'o', QByteArrayLiteral("/org/freedesktop/DBus"));
    appendHeaderField(message, 6, 's', bus);
    appendHeaderField(message, 2, 's', bus);
    appendHeaderField(message, 3, 's', QByteArrayLiteral("Hello"));
    const quint32 fieldsLength = quint32(message.size() - 16);
    std::memcpy(message.data() + 12, &fieldsLength, sizeof(fieldsLength));
    while (message.size() % 8 != 0)
        message.append('\0'); // the body, empty, starts on a multiple of 8
    return message;
}

// The EXTERNAL mechanism: the kernel tells the other end who connected; the client names its
// user id, as text in hexadecimal.
bool authenticates(int fd, const QDeadlineTimer &deadline)
{
    const QByteArray uid = QByteArray::number(::geteuid()).toHex();
    if (!sendAll(fd, QByteArray(1, '\0') + "AUTH EXTERNAL " + uid + "\r\n", deadline))
        return false;
    return receive(fd, true, deadline).startsWith("OK ");
}

bool answersHello(int fd, const QDeadlineTimer &deadline)
{
    if (!sendAll(fd, QByteArrayLiteral("BEGIN\r\n") + helloMessage(), deadline))
        return false;
    return !receive(fd, false, deadline).isEmpty();
}

BusAnswer probeOne(const UnixAddress &target, BusKind kind, const QDeadlineTimer &deadline, bool *taken)
{
    *taken = false;
    UnixSocket socket;
    if (socket.fd() < 0)
        return BusAnswer::Silent;
    switch (connectWithin(socket.fd(), target, deadline)) {
    case Connected::Refused:
        return BusAnswer::Silent;
    case Connected::Timeout:
        *taken = true;
        return BusAnswer::Silent;
    case Connected::Yes:
        break;
    }
    *taken = true;
    if (!authenticates(socket.fd(), deadline))
        return BusAnswer::Silent;
    if (kind == BusKind::MessageBus && !answersHello(socket.fd(), deadline))
        return BusAnswer::Silent;
    return BusAnswer::Answered;
}
} // namespace

BusAnswer probeBus(const QString &address, BusKind kind, const QDeadlineTimer &deadline)
{
    for (const QString &entry : address.split(u';', Qt::SkipEmptyParts)) {
        const std::optional<UnixAddress> target = unixAddressOf(entry);
        if (!target)
            return BusAnswer::Unknown;
        bool taken = false;
        const BusAnswer answer = probeOne(*target, kind, deadline, &taken);
        if (taken)
            return answer;
    }
    return BusAnswer::Silent;
}
