#include "service/ServiceStatus.h"

#include "platform/Background.h"
#include "platform/Files.h"
#include "platform/Paths.h"
#include "platform/UserManager.h"
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

namespace {
// The labels' units, and whether one of their unit files exists: once one is found, the later
// labels' files are not looked at.
struct UnitQuestion
{
    QStringList units;
    bool unitFileFound = false;
};

UnitQuestion unitQuestion()
{
    UnitQuestion question;
    for (const QString &label : serviceLabels()) {
        question.unitFileFound = question.unitFileFound || pathExists(userUnitFilePath(label));
        question.units << label + QStringLiteral(".service");
    }
    return question;
}

ServiceStatus statusFrom(const QList<UnitAnswer> &answers, bool unitFileFound)
{
    QList<UnitState> states;
    QStringList objects;
    for (const UnitAnswer &answer : answers) {
        states << answer.state;
        if (!answer.object.isEmpty())
            objects << answer.object;
    }
    ServiceStatus status = foldServiceStatus(states, unitFileFound);
    status.unitObjects = objects;
    return status;
}
} // namespace

ServiceStatus checkServiceStatus()
{
    const UnitQuestion question = unitQuestion();
    QList<UnitAnswer> answers(question.units.size());
    if (const std::optional<QDBusConnection> bus = systemdBus())
        answers = askSystemdAboutUnits(*bus, question.units);
    return statusFrom(answers, question.unitFileFound);
}

void startServiceCheck(QObject *receiver, std::function<void(const ServiceStatus &)> done)
{
    // Every 3 s: on a connection that is ready the question leaves from here and its answer
    // comes back here, carried by Qt's D-Bus thread, without a hop through the pool. Making a
    // connection blocks, so a check that needs one runs in the background.
    if (const std::optional<QDBusConnection> bus = subscribedSystemdBus()) {
        const UnitQuestion question = unitQuestion();
        askSystemdAboutUnitsLater(*bus, question.units, receiver,
                                  [done = std::move(done), found = question.unitFileFound](const QList<UnitAnswer> &answers) {
                                      done(statusFrom(answers, found));
                                  });
        return;
    }
    // With neither the bus nor the manager's socket there is no one to ask and nothing to wait for.
    if (userManagerIsMissing()) {
        const UnitQuestion question = unitQuestion();
        QMetaObject::invokeMethod(
            receiver,
            [done = std::move(done), status = statusFrom(QList<UnitAnswer>(question.units.size()), question.unitFileFound)] {
                done(status);
            },
            Qt::QueuedConnection);
        return;
    }
    runInBackground(receiver, [] { return checkServiceStatus(); }, std::move(done));
}

StateTone stateTone(const ServiceStatus &status)
{
    if (status.running)
        return StateTone::Success;
    if (status.loaded || status.unavailable)
        return StateTone::Warning;
    return StateTone::Secondary;
}
