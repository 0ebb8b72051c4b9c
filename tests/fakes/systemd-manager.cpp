// Stand-in for systemd's user manager on a private bus, scripted through the same files in
// "systemctl.d/" as the systemctl stand-in, so that the service script and the app see one
// world:
//   units/<unit>         KEY=VALUE lines: the unit's properties (default: a unit systemd does not know)
//   units/<unit>.status  non-zero: loading that unit fails, and with it any ListUnitsByNames naming it
//   unavailable          every call fails
//   hold                 ListUnitsByNames waits for the file "release"
//   garbage-path         ListUnitsByNames answers a string in place of each object path
//   garbage-properties   ListUnitsByNames answers the states as numbers
//   bus-calls/<time>.*   each call, method and arguments NUL-separated (a list's items one by one),
//                        in call order (written here)
// Once a client has called Subscribe, a change of a unit file is announced with
// PropertiesChanged on that unit's object.
//
//   systemd-manager BUS-ADDRESS CONTROL-FOLDER            on a bus, as org.freedesktop.systemd1
//   systemd-manager --private SOCKET-PATH CONTROL-FOLDER  on its own socket, to peers, as the
//                                                         manager's $XDG_RUNTIME_DIR/systemd/private
// Either prints "ready" once it serves.

#include "ListedUnit.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QMap>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <utility>
#include <type_traits>

namespace {
const QString unitPrefix = QStringLiteral("/org/freedesktop/systemd1/unit/");

// systemd's escaping of a unit name into an object path element.
QString objectOf(const QString &unit)
{
    QString escaped;
    for (const QChar c : unit) {
        if ((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9'))
            escaped += c;
        else
            escaped += u'_' + QStringLiteral("%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
    }
    return unitPrefix + escaped;
}

class Manager : public QDBusVirtualObject
{
public:
    explicit Manager(const QString &control) : m_control(control)
    {
        QDir().mkpath(path(QStringLiteral("units")));
        QDir().mkpath(path(QStringLiteral("bus-calls")));
        for (const QString &unit : units())
            m_known.insert(unit, properties(unit));
        m_watcher.addPath(path(QStringLiteral("units")));
        watchUnitFiles();
        QObject::connect(&m_watcher, &QFileSystemWatcher::directoryChanged, [this] { unitsChanged(); });
        QObject::connect(&m_watcher, &QFileSystemWatcher::fileChanged, [this] { unitsChanged(); });
        QObject::connect(&m_releaseCheck, &QTimer::timeout, [this] { answerHeldCalls(); });
        m_releaseCheck.start(20);
    }

    // Serves on this connection too; unit changes are announced on every one.
    bool serveOn(QDBusConnection connection)
    {
        m_connections << connection;
        return connection.registerVirtualObject(QStringLiteral("/org/freedesktop/systemd1"), this,
                                                QDBusConnection::SubPath);
    }

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        record(message);
        if (exists(QStringLiteral("unavailable"))) {
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                     QStringLiteral("Access denied")));
            return true;
        }
        const bool query = message.member() == QStringLiteral("ListUnitsByNames");
        if (query && exists(QStringLiteral("hold")) && !exists(QStringLiteral("release"))) {
            message.setDelayedReply(true);
            m_held.append({message, connection});
            return true;
        }
        connection.send(answer(message));
        return true;
    }

private:
    QString path(const QString &name) const { return m_control + u'/' + name; }
    bool exists(const QString &name) const { return QFile::exists(path(name)); }

    QStringList units() const
    {
        QStringList names;
        for (const QString &name : QDir(path(QStringLiteral("units"))).entryList(QDir::Files))
            if (!name.endsWith(QStringLiteral(".status")))
                names << name;
        return names;
    }

    void record(const QDBusMessage &message) const
    {
        QByteArray line = message.member().toUtf8() + '\0';
        for (const QVariant &argument : message.arguments()) {
            const QStringList items =
                argument.typeId() == QMetaType::QStringList ? argument.toStringList() : QStringList{argument.toString()};
            for (const QString &item : items)
                line += item.toUtf8() + '\0';
        }
        // Named so that name order is call order, like the systemctl stand-in's records.
        QFile file(path(QStringLiteral("bus-calls/"))
                   + QStringLiteral("%1").arg(QDateTime::currentMSecsSinceEpoch() * 1000000 + m_calls++, 20, 10,
                                              QLatin1Char('0')));
        if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            file.write(line);
    }

    QVariantMap properties(const QString &unit) const
    {
        QFile file(path(QStringLiteral("units/")) + unit);
        QVariantMap result;
        result.insert(QStringLiteral("Id"), unit);
        if (!file.open(QIODevice::ReadOnly)) {
            result.insert(QStringLiteral("LoadState"), QStringLiteral("not-found"));
            result.insert(QStringLiteral("ActiveState"), QStringLiteral("inactive"));
            result.insert(QStringLiteral("SubState"), QStringLiteral("dead"));
            return result;
        }
        for (const QByteArray &line : file.readAll().split('\n')) {
            const qsizetype equals = line.indexOf('=');
            if (equals > 0)
                result.insert(QString::fromUtf8(line.left(equals)), QString::fromUtf8(line.mid(equals + 1)));
        }
        return result;
    }

    QDBusMessage answer(const QDBusMessage &message) const
    {
        const QString member = message.member();
        if (member == QStringLiteral("Subscribe")) {
            m_subscribed = true;
            return message.createReply();
        }
        if (member == QStringLiteral("ListUnitsByNames"))
            return listUnits(message);
        return message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"), member);
    }

    // systemd loads each named unit and lists it as (name, description, load state, active state,
    // sub state, followed unit, object path, job id, job type, job path); when one fails to load
    // the whole call fails.
    QDBusMessage listUnits(const QDBusMessage &message) const
    {
        const QStringList names = message.arguments().value(0).toStringList();
        for (const QString &unit : names) {
            QFile status(path(QStringLiteral("units/")) + unit + QStringLiteral(".status"));
            if (status.open(QIODevice::ReadOnly) && status.readAll().trimmed().toInt() != 0)
                return message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                QStringLiteral("Access denied"));
        }
        if (exists(QStringLiteral("garbage-path")))
            return message.createReply(QVariant::fromValue(listed<QString, QString>(names)));
        if (exists(QStringLiteral("garbage-properties")))
            return message.createReply(QVariant::fromValue(listed<int, QDBusObjectPath>(names)));
        return message.createReply(QVariant::fromValue(listed<QString, QDBusObjectPath>(names)));
    }

    template <typename State, typename Path>
    QList<ListedUnit<State, Path>> listed(const QStringList &names) const
    {
        QList<ListedUnit<State, Path>> units;
        for (const QString &unit : names) {
            const QVariantMap known = properties(unit);
            ListedUnit<State, Path> listed;
            listed.name = unit;
            listed.load = stateAs<State>(known.value(QStringLiteral("LoadState")));
            listed.active = stateAs<State>(known.value(QStringLiteral("ActiveState")));
            listed.sub = stateAs<State>(known.value(QStringLiteral("SubState")));
            listed.object = Path(objectOf(unit));
            units << listed;
        }
        return units;
    }

    template <typename State>
    static State stateAs(const QVariant &value)
    {
        if constexpr (std::is_same_v<State, int>)
            return 1;
        else
            return value.toString();
    }

    void answerHeldCalls()
    {
        if (m_held.isEmpty() || !exists(QStringLiteral("release")))
            return;
        for (const auto &[message, connection] : std::as_const(m_held))
            connection.send(answer(message));
        m_held.clear();
    }

    void watchUnitFiles()
    {
        for (const QString &unit : units())
            m_watcher.addPath(path(QStringLiteral("units/")) + unit);
    }

    void unitsChanged()
    {
        watchUnitFiles();
        QStringList names = units() + m_known.keys();
        names.removeDuplicates();
        for (const QString &unit : names) {
            const QVariantMap now = properties(unit);
            if (m_known.value(unit) == now)
                continue;
            m_known.insert(unit, now);
            if (!m_subscribed)
                continue;
            QDBusMessage signal = QDBusMessage::createSignal(objectOf(unit), QStringLiteral("org.freedesktop.DBus.Properties"),
                                                             QStringLiteral("PropertiesChanged"));
            signal.setArguments({QStringLiteral("org.freedesktop.systemd1.Unit"), now, QStringList()});
            for (const QDBusConnection &connection : std::as_const(m_connections))
                connection.send(signal);
        }
    }

    QString m_control;
    QList<QDBusConnection> m_connections;
    QFileSystemWatcher m_watcher;
    QTimer m_releaseCheck;
    QList<std::pair<QDBusMessage, QDBusConnection>> m_held;
    QMap<QString, QVariantMap> m_known;
    mutable bool m_subscribed = false;
    mutable qint64 m_calls = 0;
};
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    qDBusRegisterMetaType<ListedUnit<QString, QDBusObjectPath>>();
    qDBusRegisterMetaType<QList<ListedUnit<QString, QDBusObjectPath>>>();
    qDBusRegisterMetaType<ListedUnit<QString, QString>>();
    qDBusRegisterMetaType<QList<ListedUnit<QString, QString>>>();
    qDBusRegisterMetaType<ListedUnit<int, QDBusObjectPath>>();
    qDBusRegisterMetaType<QList<ListedUnit<int, QDBusObjectPath>>>();
    const QStringList arguments = application.arguments().mid(1);
    const bool onItsOwnSocket = arguments.size() == 3 && arguments[0] == QStringLiteral("--private");
    if (arguments.size() != 2 && !onItsOwnSocket) {
        std::fprintf(stderr, "usage: systemd-manager BUS-ADDRESS CONTROL-FOLDER\n"
                             "       systemd-manager --private SOCKET-PATH CONTROL-FOLDER\n");
        return 64;
    }
    Manager manager(arguments.last());
    std::unique_ptr<QDBusServer> server;
    if (onItsOwnSocket) {
        QDir().mkpath(QFileInfo(arguments[1]).path());
        server = std::make_unique<QDBusServer>(QStringLiteral("unix:path=") + arguments[1]);
        QObject::connect(server.get(), &QDBusServer::newConnection, [&manager](const QDBusConnection &peer) {
            if (!manager.serveOn(peer))
                std::fprintf(stderr, "systemd-manager: cannot serve a peer\n");
        });
        if (!server->isConnected()) {
            std::fprintf(stderr, "systemd-manager: cannot listen on %s\n", qPrintable(arguments[1]));
            return 1;
        }
    } else {
        QDBusConnection bus = QDBusConnection::connectToBus(arguments[0], QStringLiteral("bus"));
        if (!bus.isConnected() || !manager.serveOn(bus) || !bus.registerService(QStringLiteral("org.freedesktop.systemd1"))) {
            std::fprintf(stderr, "systemd-manager: cannot serve on %s\n", qPrintable(arguments[0]));
            return 1;
        }
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}
