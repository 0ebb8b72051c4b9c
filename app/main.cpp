#include "app/AppDelegate.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Veldspar"));
    QGuiApplication::setDesktopFileName(QStringLiteral("org.kestrum.Veldspar.configure"));

    // One controller for the whole life of the process.
    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    QApplication::exec();
    return 0;
}
