// Stand-in for systemd's user manager on a private bus, scripted through the same files in
// "systemctl.d/" as the systemctl stand-in, so that the service script and the app see one
// world:
//   units/<unit>         KEY=VALUE lines: the unit's properties (default: a unit systemd does not know)
//   units/<unit>.status  non-zero: LoadUnit of that unit fails
//   unavailable          every call fails
//   hold                 LoadUnit and GetAll wait for the file "release"
//   garbage-path         LoadUnit answers a string instead of an object path
//   garbage-properties   GetAll answers the states as numbers
//   bus-calls/<time>.*   each call, method and arguments NUL-separated, in call order (written here)
// Once a client has called Subscribe, a change of a unit file is announced with
// PropertiesChanged on that unit's object.
//
//   systemd-manager BUS-ADDRESS CONTROL-FOLDER    prints "ready" once it serves

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileSystemWatcher>
#include <QMap>
#include <QTimer>

#include <cstdio>

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

QString unitOf(const QString &object)
{
    const QString escaped = object.mid(unitPrefix.size());
    QString unit;
    for (qsizetype i = 0; i < escaped.size(); ++i) {
        if (escaped.at(i) == u'_' && i + 2 < escaped.size()) {
            unit += QChar(escaped.mid(i + 1, 2).toUShort(nullptr, 16));
            i += 2;
        } else {
            unit += escaped.at(i);
        }
    }
    return unit;
}

class Manager : public QDBusVirtualObject
{
public:
    Manager(const QString &control, QDBusConnection bus) : m_control(control), m_bus(bus)
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

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        record(message);
        if (exists(QStringLiteral("unavailable"))) {
            connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                     QStringLiteral("Access denied")));
            return true;
        }
        const bool query = message.member() == QStringLiteral("LoadUnit") || message.member() == QStringLiteral("GetAll");
        if (query && exists(QStringLiteral("hold")) && !exists(QStringLiteral("release"))) {
            message.setDelayedReply(true);
            m_held << message;
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
        if (message.path().startsWith(unitPrefix))
            line += unitOf(message.path()).toUtf8() + '\0';
        for (const QVariant &argument : message.arguments())
            line += argument.toString().toUtf8() + '\0';
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
        if (member == QStringLiteral("LoadUnit")) {
            const QString unit = message.arguments().value(0).toString();
            QFile status(path(QStringLiteral("units/")) + unit + QStringLiteral(".status"));
            if (status.open(QIODevice::ReadOnly) && status.readAll().trimmed().toInt() != 0)
                return message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                                                QStringLiteral("Access denied"));
            if (exists(QStringLiteral("garbage-path")))
                return message.createReply(objectOf(unit));
            return message.createReply(QVariant::fromValue(QDBusObjectPath(objectOf(unit))));
        }
        if (member == QStringLiteral("GetAll") && message.path().startsWith(unitPrefix)) {
            QVariantMap answer = properties(unitOf(message.path()));
            if (exists(QStringLiteral("garbage-properties")))
                for (const QString &name : {QStringLiteral("LoadState"), QStringLiteral("ActiveState"),
                                            QStringLiteral("SubState")})
                    answer.insert(name, 1);
            return message.createReply(answer);
        }
        return message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"), member);
    }

    void answerHeldCalls()
    {
        if (m_held.isEmpty() || !exists(QStringLiteral("release")))
            return;
        for (const QDBusMessage &message : std::as_const(m_held))
            m_bus.send(answer(message));
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
            m_bus.send(signal);
        }
    }

    QString m_control;
    QDBusConnection m_bus;
    QFileSystemWatcher m_watcher;
    QTimer m_releaseCheck;
    QList<QDBusMessage> m_held;
    QMap<QString, QVariantMap> m_known;
    mutable bool m_subscribed = false;
    mutable qint64 m_calls = 0;
};
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: systemd-manager BUS-ADDRESS CONTROL-FOLDER\n");
        return 64;
    }
    QDBusConnection bus = QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), QStringLiteral("bus"));
    Manager manager(QString::fromLocal8Bit(argv[2]), bus);
    if (!bus.isConnected()
        || !bus.registerVirtualObject(QStringLiteral("/org/freedesktop/systemd1"), &manager,
                                      QDBusConnection::SubPath)
        || !bus.registerService(QStringLiteral("org.freedesktop.systemd1"))) {
        std::fprintf(stderr, "systemd-manager: cannot serve on %s\n", argv[1]);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}
