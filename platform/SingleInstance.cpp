#include "platform/SingleInstance.h"

#include "platform/InstanceFolder.h"
#include "platform/ShortLine.h"
#include "platform/UnixSocket.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
const QByteArray showRequest = QByteArrayLiteral("show\n");
const QByteArray shownAnswer = QByteArrayLiteral("shown\n");
constexpr qsizetype longestLine = 64;
// A client that says nothing within this time is dropped.
constexpr int requestWaitMs = 5000;
// How long a copy that holds the socket may take to accept a connection.
constexpr int connectWaitMs = 1000;
constexpr int backlog = 16;
// Requests served at once; more are closed as they come. Each holds a descriptor for up to
// requestWaitMs.
constexpr int mostRequests = 8;
// How long the listener rests when the process has no descriptor left for a connection.
constexpr int restMs = 250;

// Whether accept failed for want of descriptors or memory, which lasts a while: the connection
// stays queued and the socket readable, so asking again at once would fail again and again.
bool outOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

std::optional<sockaddr_un> addressOf(const QString &name)
{
    const QByteArray path = QFile::encodeName(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.isEmpty() || path.size() >= qsizetype(sizeof(address.sun_path)))
        return std::nullopt;
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    return address;
}

// In the shared temporary folder another account could hold the name or call it; neither is
// one of our copies.
bool peerIsThisUser(int fd)
{
    struct ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return false;
    return peer.uid == ::geteuid();
}

// Waits until the socket is ready for the events or the deadline passes.
bool connectWithin(int fd, const sockaddr_un &address, const QDeadlineTimer &deadline)
{
    for (;;) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 || errno == EISCONN)
            return true;
        // A copy whose queue of connections is full accepts again in a moment; a socket
        // nobody listens on (a crashed copy's) refuses at once.
        if ((errno != EAGAIN && errno != EINTR) || deadline.hasExpired())
            return false;
        QThread::msleep(5);
    }
}

// The first line, with its end, of at most longestLine bytes.
QByteArray readLine(int fd, const QDeadlineTimer &deadline)
{
    ShortLine line(longestLine);
    while (!line.complete()) {
        char chunk[longestLine];
        const qsizetype got = receiveSome(fd, chunk, line.room(), deadline);
        if (got == 0)
            break;
        line.add(chunk, got);
    }
    return line.line();
}

// An exclusive lock on a file beside the socket, held while this object lives. The kernel lets
// it go with the process, so a copy that crashed leaves no lock to be judged stale; nothing is
// written, so taking it costs no trip to the disk.
class NameLock
{
public:
    explicit NameLock(const QString &path) :
        m_fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)),
        m_openError(m_fd < 0 ? errno : 0)
    {
    }
    ~NameLock()
    {
        if (m_fd >= 0)
            ::close(m_fd); // closing the only descriptor releases the lock
    }
    NameLock(const NameLock &) = delete;
    NameLock &operator=(const NameLock &) = delete;

    // Empty once the lock is held, else why not.
    std::optional<QString> acquire(const QDeadlineTimer &deadline) const
    {
        if (m_fd < 0)
            return QString::fromLocal8Bit(std::strerror(m_openError));
        for (;;) {
            if (::flock(m_fd, LOCK_EX | LOCK_NB) == 0)
                return std::nullopt;
            if (errno == EINTR)
                continue;
            if (errno != EWOULDBLOCK)
                return QString::fromLocal8Bit(std::strerror(errno));
            if (deadline.hasExpired())
                return QStringLiteral("another start holds it");
            QThread::msleep(5);
        }
    }

private:
    int m_fd;
    int m_openError;
};

// One connection to the running copy: one short line is read and answered, then it closes.
class Request : public QObject
{
public:
    Request(int fd, std::function<void()> onShow, QObject *parent) :
        QObject(parent), m_fd(fd), m_onShow(std::move(onShow)), m_reader(new QSocketNotifier(fd, QSocketNotifier::Read, this))
    {
        connect(m_reader, &QSocketNotifier::activated, this, &Request::read);
        QTimer::singleShot(requestWaitMs, this, &Request::finish);
    }
    ~Request() override { ::close(m_fd); }

private:
    void read()
    {
        char chunk[longestLine];
        const ssize_t got = ::recv(m_fd, chunk, size_t(m_line.room()), MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (got > 0 && !m_line.add(chunk, got))
            return; // the rest of the line is still on its way
        if (m_line.line() == showRequest) {
            m_onShow();
            ::send(m_fd, shownAnswer.constData(), size_t(shownAnswer.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        finish();
    }

    void finish()
    {
        m_reader->setEnabled(false);
        deleteLater();
    }

    int m_fd;
    ShortLine m_line{longestLine};
    std::function<void()> m_onShow;
    QSocketNotifier *m_reader;
};
} // namespace

SingleInstance::SingleInstance(QString serverName, QObject *parent) : QObject(parent), m_name(std::move(serverName))
{
}

SingleInstance::~SingleInstance()
{
    if (m_listener < 0)
        return;
    delete m_listening;
    ::close(m_listener);
    QFile::remove(m_name);
}

QString SingleInstance::defaultServerName()
{
    // Each test world has a root of its own; as shipped the folders are the system's.
    const QString folder = instanceFolder(qEnvironmentVariable("VELDSPAR_ROOT_FOR_TESTING", QStringLiteral("/")));
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/org.kestrum.Veldspar.configure.socket");
}

SingleInstance::Claim SingleInstance::claim(int timeoutMs)
{
    if (m_name.isEmpty()) {
        qWarning("Veldspar has no place of this user's own to look for its running copy; starting anyway.");
        return Claim::Primary;
    }
    const QDeadlineTimer deadline(timeoutMs);
    // Looking for a running copy and taking the name over happen under one lock, so that of two
    // starts that find the same stale socket, the second finds the first one listening.
    const QString lockPath = m_name + QStringLiteral(".lock");
    const NameLock lock(lockPath);
    if (const std::optional<QString> why = lock.acquire(deadline)) {
        qWarning("Cannot tell whether Veldspar already runs (%s: %s); starting anyway.",
                 qPrintable(QDir::toNativeSeparators(lockPath)), qPrintable(*why));
        return Claim::Primary;
    }
    const Claim found = askRunningCopy(deadline);
    if (found == Claim::Primary)
        listen();
    return found;
}

SingleInstance::Claim SingleInstance::askRunningCopy(const QDeadlineTimer &deadline) const
{
    const std::optional<sockaddr_un> address = addressOf(m_name);
    UnixSocket socket;
    if (!address || socket.fd() < 0)
        return Claim::Primary;
    const QDeadlineTimer connecting(qMin(connectWaitMs, remainingMs(deadline)));
    if (!connectWithin(socket.fd(), *address, connecting))
        return Claim::Primary; // nobody listens: no copy runs, or one crashed and left its socket
    if (!peerIsThisUser(socket.fd()))
        return Claim::Primary;

    // The running copy answers once its event loop turns, which takes a while during its start.
    if (!sendAll(socket.fd(), showRequest, deadline))
        return Claim::RunningCopyBusy;
    return readLine(socket.fd(), deadline) == shownAnswer ? Claim::RaisedRunningCopy : Claim::RunningCopyBusy;
}

void SingleInstance::listen()
{
    const std::optional<sockaddr_un> address = addressOf(m_name);
    UnixSocket socket;
    const auto fail = [this](const char *why) {
        qWarning("Later starts of Veldspar cannot find this one: %s: %s", qPrintable(QDir::toNativeSeparators(m_name)), why);
    };
    if (!address)
        return fail("the path is too long for a socket");
    if (socket.fd() < 0)
        return fail(std::strerror(errno));
    // Called under the lock with nobody answering: whatever holds the name is left over.
    ::unlink(address->sun_path);
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)) != 0)
        return fail(std::strerror(errno));
    // Only this user may connect; requests are checked for their sender as well.
    ::chmod(address->sun_path, S_IRUSR | S_IWUSR);
    if (::listen(socket.fd(), backlog) != 0)
        return fail(std::strerror(errno));

    m_listener = socket.release();
    m_listening = new QSocketNotifier(m_listener, QSocketNotifier::Read, this);
    connect(m_listening, &QSocketNotifier::activated, this, &SingleInstance::acceptRequests);
}

void SingleInstance::acceptRequests()
{
    for (;;) {
        const int connection = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR)
                continue;
            if (outOfResources(errno))
                rest();
            return; // none left (or a connection that gave up before it was taken)
        }
        if (m_requests >= mostRequests)
            ::close(connection);
        else
            answer(connection);
    }
}

void SingleInstance::rest()
{
    m_listening->setEnabled(false);
    QTimer::singleShot(restMs, m_listening, [listening = m_listening] { listening->setEnabled(true); });
}

void SingleInstance::answer(int connection)
{
    if (!peerIsThisUser(connection)) {
        ::close(connection);
        return;
    }
    auto *request = new Request(connection, [this] {
        qInfo("Another start of Veldspar asked this copy to come forward.");
        Q_EMIT activationRequested();
    }, this);
    ++m_requests;
    connect(request, &QObject::destroyed, this, [this] { --m_requests; });
}
