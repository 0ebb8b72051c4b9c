#include "platform/UserManager.h"

#include "platform/BusProbe.h"
#include "platform/SessionBusCheck.h"

#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QMutex>

#include <atomic>

namespace {
// Qt keeps connections by name: one for the session bus, one for the manager's own socket.
const QString &busConnectionName()
{
    static const QString name = QStringLiteral("veldspar-user-bus");
    return name;
}

const QString &peerConnectionName()
{
    static const QString name = QStringLiteral("veldspar-user-manager");
    return name;
}

// Never destroyed: a status check may still be connecting, holding it, when the process ends.
QMutex &connectionLock()
{
    static QMutex *lock = new QMutex;
    return *lock;
}

// Which of the two connections is the manager's now. Read without the lock, which a connection
// being made holds.
enum class Route { None, Bus, Peer };
std::atomic<Route> route = Route::None;

// Counts the connections made, likewise read without the lock.
std::atomic<quint64> connectionsMade = 0;

QDBusConnection connectionOf(Route way)
{
    return QDBusConnection(way == Route::Peer ? peerConnectionName() : busConnectionName());
}

// Whether the address is one Unix socket path with nothing at that path, or no address at all.
bool socketIsMissing(const QString &address)
{
    if (address.isEmpty())
        return true;
    if (!address.startsWith(QStringLiteral("unix:")) || address.contains(u';'))
        return false;
    for (const QString &pair : address.mid(5).split(u',')) {
        if (pair.startsWith(QStringLiteral("path="))) {
            const QByteArray path = QByteArray::fromPercentEncoding(pair.mid(5).toUtf8());
            return !QFileInfo::exists(QString::fromUtf8(path));
        }
    }
    return false;
}

// Whether systemd's manager owns its name on this bus; a bus that does not say in time has no
// manager to offer either.
bool managerIsOn(const QDBusConnection &bus)
{
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    question << QStringLiteral("org.freedesktop.systemd1");
    const QDBusMessage reply = bus.call(question, QDBus::Block, userManagerCallTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

void forgetConnections()
{
    // A connection that is gone stays registered under its name until it is let go.
    QDBusConnection::disconnectFromBus(busConnectionName());
    QDBusConnection::disconnectFromPeer(peerConnectionName());
    route = Route::None;
}

// Whether Qt may be asked to connect: it does so on its one D-Bus thread without a time-out, and
// an endpoint that never answers would hold that thread, and with it the main thread's every
// look at a connection and the end of the process. A kind of address the probe does not speak
// is left to Qt.
bool answersInTime(const QString &address, BusKind kind)
{
    return probeBus(address, kind, QDeadlineTimer(userManagerCallTimeoutMs)) != BusAnswer::Silent;
}

// The session bus, when the manager is on it. Asking Qt to connect to a socket that is not
// there costs a round trip to its D-Bus thread, so a plainly missing one is not tried.
bool connectThroughTheBus()
{
    const QString address = userBusAddress();
    if (socketIsMissing(address) || !answersInTime(address, BusKind::MessageBus))
        return false;
    const QDBusConnection bus = QDBusConnection::connectToBus(address, busConnectionName());
    if (bus.isConnected() && managerIsOn(bus))
        return true;
    QDBusConnection::disconnectFromBus(busConnectionName());
    return false;
}

// Whether the other end of a new peer connection answers. systemd's manager can miss a message
// that reaches it together with the end of the authentication: it reads both at once and then
// waits for more before it looks at the message. A second one brings it out, and its answer
// proves the connection; on a connection without that trouble the first answer comes at once.
bool peerAnswers(const QDBusConnection &peer)
{
    const QDBusMessage ping = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.systemd1"), QStringLiteral("/org/freedesktop/systemd1"),
        QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    constexpr int firstWaitMs = 250;
    for (const int waitMs : {firstWaitMs, userManagerCallTimeoutMs})
        if (peer.call(ping, QDBus::Block, waitMs).type() == QDBusMessage::ReplyMessage)
            return true;
    return false;
}

bool connectToTheManagersSocket()
{
    const QString address = userManagerSocketAddress();
    if (socketIsMissing(address) || !answersInTime(address, BusKind::Peer))
        return false;
    const QDBusConnection peer = QDBusConnection::connectToPeer(address, peerConnectionName());
    if (peer.isConnected() && peerAnswers(peer))
        return true;
    QDBusConnection::disconnectFromPeer(peerConnectionName());
    return false;
}
} // namespace

QString userBusAddress()
{
    const QString hidden = hiddenSessionBusAddress();
    if (!hidden.isEmpty())
        return hidden; // still the user's bus, only hidden from Qt's own services
    const QString session = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    if (!session.isEmpty())
        return session;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty())
        return QString();
    return QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus");
}

QString userManagerSocketAddress()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty())
        return QString();
    return QStringLiteral("unix:path=") + runtime + QStringLiteral("/systemd/private");
}

bool userManagerIsMissing()
{
    return socketIsMissing(userBusAddress()) && socketIsMissing(userManagerSocketAddress());
}

QDBusConnection userManager(quint64 *generation)
{
    const QMutexLocker locker(&connectionLock());
    QDBusConnection connection = connectionOf(route);
    if (route == Route::None || !connection.isConnected()) {
        forgetConnections();
        if (connectThroughTheBus())
            route = Route::Bus;
        else if (connectToTheManagersSocket())
            route = Route::Peer;
        connection = connectionOf(route);
        if (route != Route::None)
            ++connectionsMade;
    }
    if (generation)
        *generation = connectionsMade;
    return connection;
}

QDBusConnection currentUserManager(quint64 *generation)
{
    if (generation)
        *generation = connectionsMade;
    return connectionOf(route);
}

void disconnectUserManager()
{
    const QMutexLocker locker(&connectionLock());
    forgetConnections();
}
