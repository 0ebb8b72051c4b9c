#include "service/SystemdUnits.h"

#include "platform/UserManager.h"
#include "service/ServiceStatus.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QHash>

#include <atomic>

namespace {
const QString &systemdService()
{
    static const QString name = QStringLiteral("org.freedesktop.systemd1");
    return name;
}

QDBusMessage managerCall(const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage call = QDBusMessage::createMethodCall(systemdService(), QStringLiteral("/org/freedesktop/systemd1"),
                                                       QStringLiteral("org.freedesktop.systemd1.Manager"), method);
    call.setArguments(arguments);
    return call;
}

QDBusMessage callManager(const QDBusConnection &bus, const QString &method, const QVariantList &arguments = {})
{
    return bus.call(managerCall(method, arguments), QDBus::Block, userManagerCallTimeoutMs);
}

// The manager (or the bus) let the call run out of time, or the bus went away meanwhile.
bool unanswered(const QDBusMessage &reply)
{
    if (reply.type() != QDBusMessage::ErrorMessage)
        return false;
    const QString name = reply.errorName();
    return name == QStringLiteral("org.freedesktop.DBus.Error.NoReply")
           || name == QStringLiteral("org.freedesktop.DBus.Error.Timeout")
           || name == QStringLiteral("org.freedesktop.DBus.Error.Disconnected");
}

// The connection (by its generation) on which the manager took this process's subscription;
// 0 for none. A new connection starts unsubscribed.
std::atomic<quint64> subscribedConnection = 0;

// Each unit of a ListUnitsByNames answer by name: (name, description, load state, active state,
// sub state, followed unit, object path, job id, job type, job path). Empty for any other answer.
QHash<QString, UnitAnswer> unitsListedIn(const QDBusMessage &reply)
{
    QHash<QString, UnitAnswer> listed;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QStringLiteral("a(ssssssouso)"))
        return listed;
    const QDBusArgument list = reply.arguments().constFirst().value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        QString name, description, loadState, activeState, subState, followed, jobType;
        QDBusObjectPath object, job;
        uint jobId = 0;
        list.beginStructure();
        list >> name >> description >> loadState >> activeState >> subState >> followed >> object >> jobId >> jobType
            >> job;
        list.endStructure();
        const QVariantMap states = {{QStringLiteral("LoadState"), loadState},
                                    {QStringLiteral("ActiveState"), activeState},
                                    {QStringLiteral("SubState"), subState}};
        listed.insert(name, UnitAnswer{unitStateFromProperties(states), object.path()});
    }
    list.endArray();
    return listed;
}

// The answer for each unit, in the order asked; a unit the answer does not list is unavailable.
QList<UnitAnswer> answersFor(const QStringList &units, const QDBusMessage &reply)
{
    const QHash<QString, UnitAnswer> listed = unitsListedIn(reply);
    QList<UnitAnswer> answers;
    for (const QString &unit : units)
        answers << listed.value(unit); // a default answer is unavailable
    return answers;
}
} // namespace

std::optional<QDBusConnection> systemdBus()
{
    quint64 generation = 0;
    QDBusConnection bus = userManager(&generation);
    if (!bus.isConnected())
        return std::nullopt;
    if (subscribedConnection != generation) {
        const QDBusMessage reply = callManager(bus, QStringLiteral("Subscribe"));
        if (unanswered(reply))
            return std::nullopt;
        // A manager that refuses now is asked again at the next check.
        if (reply.type() == QDBusMessage::ReplyMessage
            || reply.errorName() == QStringLiteral("org.freedesktop.systemd1.AlreadySubscribed"))
            subscribedConnection = generation;
    }
    return bus;
}

std::optional<QDBusConnection> subscribedSystemdBus()
{
    quint64 generation = 0;
    QDBusConnection bus = currentUserManager(&generation);
    if (!bus.isConnected() || subscribedConnection != generation)
        return std::nullopt;
    return bus;
}

QList<UnitAnswer> askSystemdAboutUnits(const QDBusConnection &bus, const QStringList &units)
{
    return answersFor(units, callManager(bus, QStringLiteral("ListUnitsByNames"), {units}));
}

void askSystemdAboutUnitsLater(const QDBusConnection &bus, const QStringList &units, QObject *context,
                               std::function<void(const QList<UnitAnswer> &)> done)
{
    const QDBusPendingCall call = bus.asyncCall(managerCall(QStringLiteral("ListUnitsByNames"), {units}),
                                                userManagerCallTimeoutMs);
    // Parented to the context, the watcher and its answer go with it.
    auto *watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, units, done = std::move(done)] {
        watcher->deleteLater();
        done(answersFor(units, watcher->reply()));
    });
}
