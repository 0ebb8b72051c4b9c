// Start-up of the real application: process creation to the main window's first painted
// frame, and the peak memory, for comparison with bare_window. Uses the bundle given.
//
//   app_startup BUNDLE

#include "Measure.h"

#include "app/AppDelegate.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"
#include "platform/Bundle.h"

#include <QApplication>
#include <QMainWindow>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    setUpdateEngineFactory(&veldsparCreateUpdateEngine); // the engine is linked in
    if (argc < 2) {
        std::fprintf(stderr, "usage: app_startup BUNDLE\n");
        return 2;
    }
    setBundleLocationForTesting(QString::fromLocal8Bit(argv[1]));
    AppDelegate delegate;
    FirstFrame watcher;
    // The window exists only once start-up runs; watch every widget's first paint instead.
    application.installEventFilter(&watcher);
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
