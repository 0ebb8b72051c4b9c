#include "service/UnitChanges.h"

#include "platform/UserManager.h"

#include <QDBusMessage>

UnitChanges::UnitChanges(QObject *parent) : QObject(parent) {}

void UnitChanges::watch(const QStringList &objects)
{
    quint64 generation = 0;
    QDBusConnection bus = currentUserManager(&generation);
    if (!bus.isConnected())
        return;
    // A new connection has none of the old one's watches. On the same connection a unit is
    // watched once: each connect() is a round trip to Qt's D-Bus thread, every 3 s.
    if (generation != m_generation) {
        m_generation = generation;
        m_watched.clear();
    }
    // From any sender: naming systemd's well-known name would make Qt ask the bus who owns it,
    // a blocking call on this thread; and on the manager's own socket no one has a name.
    for (const QString &object : objects)
        if (!m_watched.contains(object) && bus.connect(QString(), object, QStringLiteral("org.freedesktop.DBus.Properties"),
                    QStringLiteral("PropertiesChanged"), {QStringLiteral("org.freedesktop.systemd1.Unit")},
                    QString(), this, SLOT(propertiesChanged(QDBusMessage))))
            m_watched.insert(object);
}

void UnitChanges::propertiesChanged(const QDBusMessage &)
{
    Q_EMIT changed();
}
