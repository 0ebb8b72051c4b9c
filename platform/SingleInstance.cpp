#include "platform/SingleInstance.h"

#include "platform/PrivateFolder.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QTimer>

#include <sys/socket.h>
#include <unistd.h>

namespace {
const QByteArray showRequest = QByteArrayLiteral("show\n");
const QByteArray shownAnswer = QByteArrayLiteral("shown\n");
constexpr qint64 longestLine = 64;
// A client that says nothing within this time is dropped.
constexpr int requestWaitMs = 5000;
// How long a copy that holds the socket may take to accept a connection.
constexpr int connectWaitMs = 1000;

int remainingMs(const QDeadlineTimer &deadline)
{
    return int(qMax<qint64>(0, deadline.remainingTime()));
}

// In the shared temporary folder another account could hold the name; its socket is not ours.
bool peerIsThisUser(const QLocalSocket &socket)
{
    struct ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(int(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return false;
    return peer.uid == ::geteuid();
}
} // namespace

SingleInstance::SingleInstance(QString serverName, QObject *parent) : QObject(parent), m_name(std::move(serverName))
{
}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultServerName()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isPrivateRuntimeFolder(runtime))
        return QDir::cleanPath(runtime) + QStringLiteral("/org.kestrum.Veldspar.configure.socket");
    return QDir::tempPath() + QStringLiteral("/org.kestrum.Veldspar.configure-%1.socket").arg(::geteuid());
}

SingleInstance::Claim SingleInstance::claim(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    // Looking for a running copy and taking the name over happen under one lock, so that of two
    // starts that find the same stale socket, the second finds the first one listening.
    QLockFile lock(m_name + QStringLiteral(".lock"));
    if (!lock.tryLock(remainingMs(deadline))) {
        qWarning("Cannot tell whether Veldspar already runs (%s is locked); starting anyway.",
                 qPrintable(QDir::toNativeSeparators(lock.fileName())));
        return Claim::Primary;
    }
    const Claim found = askRunningCopy(deadline);
    if (found == Claim::Primary)
        listen();
    return found;
}

SingleInstance::Claim SingleInstance::askRunningCopy(const QDeadlineTimer &deadline) const
{
    QLocalSocket socket;
    socket.connectToServer(m_name, QIODevice::ReadWrite);
    if (!socket.waitForConnected(qMin(connectWaitMs, remainingMs(deadline))))
        return Claim::Primary; // nobody listens: no copy runs, or one crashed and left its socket
    if (!peerIsThisUser(socket))
        return Claim::Primary;

    socket.write(showRequest);
    // The running copy answers once its event loop turns, which takes a while during its start.
    if (!socket.waitForBytesWritten(remainingMs(deadline)))
        return Claim::RunningCopyBusy;
    while (!socket.canReadLine() && socket.bytesAvailable() < longestLine && socket.waitForReadyRead(remainingMs(deadline))) {
    }
    return socket.readLine(longestLine) == shownAnswer ? Claim::RaisedRunningCopy : Claim::RunningCopyBusy;
}

void SingleInstance::listen()
{
    // Called under the lock with nobody answering: whatever holds the name is left over.
    QLocalServer::removeServer(m_name);
    auto *server = new QLocalServer(this);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(m_name)) {
        qWarning("Later starts of Veldspar cannot find this one: %s", qPrintable(server->errorString()));
        delete server;
        return;
    }
    m_server = server;
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::acceptRequests);
}

void SingleInstance::acceptRequests()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readRequest(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(requestWaitMs, socket, [socket] {
            socket->abort();
            socket->deleteLater();
        });
        if (socket->bytesAvailable() > 0)
            readRequest(socket);
    }
}

void SingleInstance::readRequest(QLocalSocket *socket)
{
    if (!socket->canReadLine() && socket->bytesAvailable() < longestLine)
        return; // the rest of the line is still on its way
    const QByteArray request = socket->readLine(longestLine);
    if (request == showRequest) {
        qInfo("Another start of Veldspar asked this copy to come forward.");
        Q_EMIT activationRequested();
        socket->write(shownAnswer);
    }
    socket->disconnectFromServer();
}
