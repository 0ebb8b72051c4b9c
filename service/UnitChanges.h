#pragma once

#include <QObject>
#include <QSet>
#include <QStringList>

class QDBusMessage;

// Says when systemd announces a change of a watched unit (its PropertiesChanged on the
// connection the manager is reached on, bus or its own socket). Lives on the main thread, so
// changed() arrives there.
class UnitChanges : public QObject
{
    Q_OBJECT

public:
    explicit UnitChanges(QObject *parent = nullptr);

    // Listens for changes of these unit objects on the manager's connection as it is now; a
    // connection made since the last call gets them anew. Never makes a connection itself.
    void watch(const QStringList &objects);

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void propertiesChanged(const QDBusMessage &message);

private:
    quint64 m_generation = 0; // of the connection the units are watched on
    QSet<QString> m_watched;
};
