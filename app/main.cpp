#include "app/AppDelegate.h"
#include "platform/FontConfigWarmUp.h"
#include "platform/SessionBusCheck.h"
#include "platform/SingleInstance.h"
#include "updates/StartUpRecovery.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    // The font configuration is read beside the application's own start, not after it.
    FontConfigWarmUp fonts;
    checkSessionBusInBackground();
    QApplication application(argc, argv);
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Veldspar"));
    QGuiApplication::setDesktopFileName(QStringLiteral("org.kestrum.Veldspar.configure"));
    // An update swap that a crash cut short is finished or undone before the bundle is read.
    recoverBundleAtStartUp(argv);

    // A second start brings the running copy's window forward instead of opening its own.
    SingleInstance instance;
    if (instance.claim() != SingleInstance::Claim::Primary)
        return 0;

    // One controller for the whole life of the process.
    AppDelegate delegate;
    QObject::connect(&instance, &SingleInstance::activationRequested, &delegate, &AppDelegate::bringWindowForward);
    delegate.applicationDidFinishLaunching();
    QApplication::exec();
    return 0;
}
