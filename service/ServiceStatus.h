#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>

// The service's labels, asked about in this order on every check: the service, the same
// label in lower case, and the legacy discovery service.
const QStringList &serviceLabels();

// What systemd says of one label.
enum class UnitState { Unavailable, NotLoaded, Loaded, Running };

// Reads a unit's properties as systemd gives them (LoadState, ActiveState, SubState, as text).
// A property that is missing or not text counts as absent.
UnitState unitStateFromProperties(const QVariantMap &properties);

// One check of all three labels, folded into what the service row shows.
struct ServiceStatus
{
    bool running = false;
    bool loaded = false;
    bool unavailable = false;
    bool unitFileFound = false;
    QString stateText;
    QString startupText;
    QStringList unitObjects; // the labels' units on the bus, to be told of their changes
};

// Folds the labels' states (in label order) and whether a unit file was found.
ServiceStatus foldServiceStatus(const QList<UnitState> &states, bool unitFileFound);

// Asks systemd about every label and looks for their unit files. Blocks: background only.
ServiceStatus checkServiceStatus();

// Starts a check and hands its result to done() on the main thread, unless the receiver is
// gone by then. The main thread never waits for systemd.
void startServiceCheck(QObject *receiver, std::function<void(const ServiceStatus &)> done);

// The state line's colour: green running, orange loaded or unavailable, else the secondary
// text colour.
enum class StateTone { Success, Warning, Secondary };
StateTone stateTone(const ServiceStatus &status);
