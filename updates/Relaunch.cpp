#include "updates/Relaunch.h"

#include <QCoreApplication>
#include <QProcess>

namespace {
std::function<void(const RelaunchCommand &)> &recorder()
{
    static std::function<void(const RelaunchCommand &)> function;
    return function;
}
} // namespace

void relaunchApplication(const RelaunchCommand &command)
{
    if (recorder()) {
        recorder()(command);
        return;
    }
    if (!QProcess::startDetached(command.program, command.arguments, command.workingDirectory))
        qWarning("Could not start the updated app %s", qPrintable(command.program));
    QCoreApplication::quit();
}

void setRelaunchForTesting(std::function<void(const RelaunchCommand &)> function)
{
    recorder() = std::move(function);
}
