#pragma once

#include "service/ServiceStatus.h"

#include <QDBusConnection>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// systemd's user manager, asked directly instead of through systemctl. A manager that does not
// answer the subscription in time is not asked about the units in the same check.

// The connection to the manager, with the manager asked to announce unit changes on it (it sends
// them only to clients that subscribed). Nothing when the manager cannot be reached or did not
// answer in time. Blocks: background threads only.
std::optional<QDBusConnection> systemdBus();

// The connection to the manager as it is now, when the manager took the subscription on it;
// nothing otherwise. Never blocks.
std::optional<QDBusConnection> subscribedSystemdBus();

struct UnitAnswer
{
    UnitState state = UnitState::Unavailable;
    QString object; // the unit's object path, to watch for changes; empty when unknown
};

// Loads the units (a unit systemd does not know comes back with LoadState "not-found") and reads
// each one's load, active and sub state, all in one call: ListUnitsByNames does for every name
// what LoadUnit and reading the unit's properties do, in one round trip instead of six. The
// answers come in the order of the names; a call that fails leaves every unit unavailable.
// Blocks: background threads only.
QList<UnitAnswer> askSystemdAboutUnits(const QDBusConnection &bus, const QStringList &units);

// The same question without waiting for its answer: done() gets it on the context's thread
// within the call's time-out, or never once the context is gone.
void askSystemdAboutUnitsLater(const QDBusConnection &bus, const QStringList &units, QObject *context,
                               std::function<void(const QList<UnitAnswer> &)> done);
