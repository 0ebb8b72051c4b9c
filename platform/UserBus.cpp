#include "platform/UserBus.h"

#include <QFileInfo>
#include <QMutex>

#include <atomic>

namespace {
const QString &connectionName()
{
    static const QString name = QStringLiteral("veldspar-user-bus");
    return name;
}

QMutex &connectionLock()
{
    static QMutex lock;
    return lock;
}

// Counts the connections made. Read without the lock, which a connection being made holds.
std::atomic<quint64> connectionsMade = 0;

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
} // namespace

QString userBusAddress()
{
    const QString session = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    if (!session.isEmpty())
        return session;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty())
        return QString();
    return QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus");
}

bool userBusIsMissing()
{
    return socketIsMissing(userBusAddress());
}

QDBusConnection userBus(quint64 *generation)
{
    const QMutexLocker locker(&connectionLock());
    QDBusConnection connection(connectionName());
    if (!connection.isConnected()) {
        // A connection that is gone stays registered under its name until it is let go.
        QDBusConnection::disconnectFromBus(connectionName());
        const QString address = userBusAddress();
        // Asking Qt to connect to a socket that is not there costs a round trip to its D-Bus thread.
        connection = socketIsMissing(address) ? QDBusConnection(connectionName())
                                              : QDBusConnection::connectToBus(address, connectionName());
        if (connection.isConnected())
            ++connectionsMade;
    }
    if (generation)
        *generation = connectionsMade;
    return connection;
}

QDBusConnection currentUserBus(quint64 *generation)
{
    if (generation)
        *generation = connectionsMade;
    return QDBusConnection(connectionName());
}

void disconnectUserBus()
{
    const QMutexLocker locker(&connectionLock());
    QDBusConnection::disconnectFromBus(connectionName());
}
