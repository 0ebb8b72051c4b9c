#include "service/ServiceStatus.h"

#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/Paths.h"
#include "platform/Process.h"
#include "platform/SystemTools.h"

#include <QMap>

const QStringList &serviceLabels()
{
    static const QStringList labels = {
        QStringLiteral("org.kestrum.Veldspar"),
        QStringLiteral("org.kestrum.veldspar"),
        QStringLiteral("org.kestrum.palisade"),
    };
    return labels;
}

UnitState unitStateFromAnswer(const ProcessResult &answer)
{
    if (!answer.succeeded())
        return UnitState::Unavailable;
    QMap<QString, QString> properties;
    for (const QString &line : answer.text().split(u'\n')) {
        const qsizetype equals = line.indexOf(u'=');
        if (equals > 0)
            properties.insert(line.left(equals).trimmed(), line.mid(equals + 1).trimmed());
    }
    const auto loadState = properties.constFind(QStringLiteral("LoadState"));
    if (loadState == properties.constEnd())
        return UnitState::Unavailable;
    if (*loadState == QStringLiteral("not-found"))
        return UnitState::NotLoaded;

    static const QStringList loadedStates = {QStringLiteral("active"), QStringLiteral("activating"),
                                             QStringLiteral("deactivating"), QStringLiteral("reloading"),
                                             QStringLiteral("refreshing")};
    const QString active = properties.value(QStringLiteral("ActiveState"));
    if (loadedStates.contains(active)) {
        const bool running = active == QStringLiteral("active")
                             && properties.value(QStringLiteral("SubState")) == QStringLiteral("running");
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
    bool unitFileFound = false;
    for (const QString &label : serviceLabels()) {
        // Once one unit file is found, the later labels' files are not looked at.
        unitFileFound = unitFileFound || pathExists(userUnitFilePath(label));
        try {
            states << unitStateFromAnswer(runProcess(
                systemctlProgram(), {QStringLiteral("--user"), QStringLiteral("show"),
                                     QStringLiteral("--property=LoadState,ActiveState,SubState"),
                                     label + QStringLiteral(".service")}));
        } catch (const Error &) {
            states << UnitState::Unavailable;
        }
    }
    return foldServiceStatus(states, unitFileFound);
}

StateTone stateTone(const ServiceStatus &status)
{
    if (status.running)
        return StateTone::Success;
    if (status.loaded || status.unavailable)
        return StateTone::Warning;
    return StateTone::Secondary;
}
