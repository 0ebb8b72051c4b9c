#include "service/ServiceAction.h"

#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/Paths.h"
#include "platform/Process.h"
#include "platform/SystemTools.h"

ServiceActionResult runServiceAction(const QString &script, const QString &action)
{
    ServiceActionResult result{action, false, QString()};
    try {
        const ProcessResult run = runProcess(bashProgram(), {script, action});
        result.ok = run.succeeded();
        result.output = result.ok ? run.text() : QStringLiteral("Service update failed: ") + run.text();
    } catch (const Error &error) {
        result.output = error.localizedDescription();
    }
    return result;
}

QString serviceActionStatus(const QString &action, bool ok)
{
    if (!ok)
        return QStringLiteral("Could not update service. See service-action.log in Show Files.");
    if (action == QStringLiteral("enable"))
        return QStringLiteral("Service enabled");
    if (action == QStringLiteral("disable"))
        return QStringLiteral("Service disabled");
    return QStringLiteral("Service removed");
}

bool installedServiceIsOutdated(const QString &bundledService)
{
    if (!pathExists(bundledService))
        return false;
    const std::optional<QByteArray> installed = readWholeFile(installedServicePath());
    if (!installed)
        return false;
    const std::optional<QByteArray> bundled = readWholeFile(bundledService);
    if (!bundled || *installed == *bundled)
        return false;
    return pathExists(userUnitFilePath(QStringLiteral("org.kestrum.Veldspar")));
}
