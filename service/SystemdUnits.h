#pragma once

#include <QDBusConnection>
#include <QString>

#include <optional>

enum class UnitState;

// systemd's user manager on the user bus, asked directly instead of through systemctl.

// Longest wait for one answer of the manager. A manager that does not answer within it is
// not asked again in the same check.
constexpr int systemdCallTimeoutMs = 4000;

// The user bus, with the manager asked to announce unit changes on this connection (it sends
// them only to clients that subscribed). Nothing when there is no bus or the manager did not
// answer in time. Blocks: background threads only.
std::optional<QDBusConnection> systemdBus();

struct UnitAnswer
{
    UnitState state;
    QString object;        // the unit's object path, to watch for changes; empty when unknown
    bool answered = true;  // false when the manager did not answer in time
};

// Loads the unit (a unit systemd does not know comes back with LoadState "not-found") and reads
// its load, active and sub state. Blocks: background threads only.
UnitAnswer askSystemdAboutUnit(const QDBusConnection &bus, const QString &unit);
