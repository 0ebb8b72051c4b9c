#include "service/SystemdUnits.h"

#include "platform/UserBus.h"
#include "service/ServiceStatus.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>

#include <atomic>

namespace {
const QString &systemdService()
{
    static const QString name = QStringLiteral("org.freedesktop.systemd1");
    return name;
}

QDBusMessage callManager(const QDBusConnection &bus, const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage call = QDBusMessage::createMethodCall(systemdService(), QStringLiteral("/org/freedesktop/systemd1"),
                                                       QStringLiteral("org.freedesktop.systemd1.Manager"), method);
    call.setArguments(arguments);
    return bus.call(call, QDBus::Block, systemdCallTimeoutMs);
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

// Whether this process's connection is subscribed; a new connection starts unsubscribed.
std::atomic<bool> &subscribed()
{
    static std::atomic<bool> flag{false};
    return flag;
}

// The "a{sv}" of Properties.GetAll; empty for any other answer.
QVariantMap propertiesOf(const QDBusMessage &reply)
{
    QVariantMap properties;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QStringLiteral("a{sv}"))
        return properties;
    reply.arguments().constFirst().value<QDBusArgument>() >> properties;
    return properties;
}
} // namespace

std::optional<QDBusConnection> systemdBus()
{
    bool made = false;
    QDBusConnection bus = userBus(&made);
    if (!bus.isConnected())
        return std::nullopt;
    if (made)
        subscribed() = false;
    if (!subscribed()) {
        const QDBusMessage reply = callManager(bus, QStringLiteral("Subscribe"));
        if (unanswered(reply))
            return std::nullopt;
        // A manager that refuses now is asked again at the next check.
        subscribed() = reply.type() == QDBusMessage::ReplyMessage
                       || reply.errorName() == QStringLiteral("org.freedesktop.systemd1.AlreadySubscribed");
    }
    return bus;
}

UnitAnswer askSystemdAboutUnit(const QDBusConnection &bus, const QString &unit)
{
    const QDBusMessage loaded = callManager(bus, QStringLiteral("LoadUnit"), {unit});
    if (loaded.type() != QDBusMessage::ReplyMessage || loaded.signature() != QStringLiteral("o"))
        return {UnitState::Unavailable, QString(), !unanswered(loaded)};
    const QString object = loaded.arguments().constFirst().value<QDBusObjectPath>().path();

    QDBusMessage getAll = QDBusMessage::createMethodCall(systemdService(), object,
                                                         QStringLiteral("org.freedesktop.DBus.Properties"),
                                                         QStringLiteral("GetAll"));
    getAll.setArguments({QStringLiteral("org.freedesktop.systemd1.Unit")});
    const QDBusMessage reply = bus.call(getAll, QDBus::Block, systemdCallTimeoutMs);
    return {unitStateFromProperties(propertiesOf(reply)), object, !unanswered(reply)};
}
