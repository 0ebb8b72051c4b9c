#include "service/ServiceStatus.h"

#include "platform/Files.h"
#include "platform/Paths.h"
#include "service/SystemdUnits.h"

const QStringList &serviceLabels()
{
    static const QStringList labels = {
        QStringLiteral("org.kestrum.Veldspar"),
        QStringLiteral("org.kestrum.veldspar"),
        QStringLiteral("org.kestrum.palisade"),
    };
    return labels;
}

namespace {
// The property's text; empty when it is missing or of another type.
QString textProperty(const QVariantMap &properties, const QString &name)
{
    const QVariant value = properties.value(name);
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}
} // namespace

UnitState unitStateFromProperties(const QVariantMap &properties)
{
    const QString loadState = textProperty(properties, QStringLiteral("LoadState"));
    if (loadState.isEmpty())
        return UnitState::Unavailable;
    if (loadState == QStringLiteral("not-found"))
        return UnitState::NotLoaded;

    static const QStringList loadedStates = {QStringLiteral("active"), QStringLiteral("activating"),
                                             QStringLiteral("deactivating"), QStringLiteral("reloading"),
                                             QStringLiteral("refreshing")};
    const QString active = textProperty(properties, QStringLiteral("ActiveState"));
    if (loadedStates.contains(active)) {
        const bool running = active == QStringLiteral("active")
                             && textProperty(properties, QStringLiteral("SubState")) == QStringLiteral("running");
        return running ? UnitState::Running : UnitState::Loaded;
    }
    static const QStringList stoppedStates = {QStringLiteral("inactive"), QStringLiteral("failed"),
                                              QStringLiteral("maintenance")};
    return stoppedStates.contains(active) ? UnitState::NotLoaded : UnitState::Unavailable;
}

ServiceStatus foldServiceStatus(const QList<UnitState> &states, bool unitFileFound)
{
    ServiceStatus status;
    status.unitFileFound = unitFileFound;
    for (UnitState state : states) {
        status.running = status.running || state == UnitState::Running;
        status.loaded = status.loaded || state == UnitState::Running || state == UnitState::Loaded;
        status.unavailable = status.unavailable || state == UnitState::Unavailable;
    }
    if (status.running)
        status.stateText = QStringLiteral("\u25CF Running");
    else if (status.loaded)
        status.stateText = QStringLiteral("\u25CF Starting / restarting");
    else if (status.unavailable)
        status.stateText = QStringLiteral("\u25CF Status unavailable");
    else if (unitFileFound)
        status.stateText = QStringLiteral("\u25CF Stopped");
    else
        status.stateText = QStringLiteral("\u25CF Disabled");
    status.startupText = unitFileFound ? QStringLiteral("Configured to start at login")
                                       : QStringLiteral("Automatic startup is not configured");
    return status;
}

ServiceStatus checkServiceStatus()
{
    QList<UnitState> states;
    QStringList objects;
    bool unitFileFound = false;
    const std::optional<QDBusConnection> bus = systemdBus();
    bool managerAnswers = bus.has_value();
    for (const QString &label : serviceLabels()) {
        // Once one unit file is found, the later labels' files are not looked at.
        unitFileFound = unitFileFound || pathExists(userUnitFilePath(label));
        // A manager that let one call run out of time would only make the others wait too.
        if (!managerAnswers) {
            states << UnitState::Unavailable;
            continue;
        }
        const UnitAnswer answer = askSystemdAboutUnit(*bus, label + QStringLiteral(".service"));
        states << answer.state;
        if (!answer.object.isEmpty())
            objects << answer.object;
        managerAnswers = answer.answered;
    }
    ServiceStatus status = foldServiceStatus(states, unitFileFound);
    status.unitObjects = objects;
    return status;
}

StateTone stateTone(const ServiceStatus &status)
{
    if (status.running)
        return StateTone::Success;
    if (status.loaded || status.unavailable)
        return StateTone::Warning;
    return StateTone::Secondary;
}
