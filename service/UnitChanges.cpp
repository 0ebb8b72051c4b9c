#include "service/UnitChanges.h"

#include "platform/UserBus.h"

#include <QDBusMessage>

UnitChanges::UnitChanges(QObject *parent) : QObject(parent) {}

void UnitChanges::watch(const QStringList &objects)
{
    QDBusConnection bus = currentUserBus();
    if (!bus.isConnected())
        return;
    // From any sender: naming systemd's well-known name would make Qt ask the bus who owns it,
    // a blocking call on this thread. Asking again for a unit already watched changes nothing.
    for (const QString &object : objects)
        bus.connect(QString(), object, QStringLiteral("org.freedesktop.DBus.Properties"),
                    QStringLiteral("PropertiesChanged"), {QStringLiteral("org.freedesktop.systemd1.Unit")},
                    QString(), this, SLOT(propertiesChanged(QDBusMessage)));
}

void UnitChanges::propertiesChanged(const QDBusMessage &)
{
    Q_EMIT changed();
}
