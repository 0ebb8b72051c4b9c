// CPU time the app spends in a minute of watching the service (the 3-second status check runs
// systemctl three times), its own and its children's, with the systemctl given.
//
//   status_poll BUNDLE SYSTEMCTL [SECONDS]

#include "Measure.h"

#include "app/AppDelegate.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"
#include "platform/Bundle.h"
#include "platform/SystemTools.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

namespace {
double cpuSeconds(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
           + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}
} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    setUpdateEngineFactory(&veldsparCreateUpdateEngine); // the engine is linked in
    if (argc < 3) {
        std::fprintf(stderr, "usage: status_poll BUNDLE SYSTEMCTL [SECONDS]\n");
        return 2;
    }
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 60;
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    setBundleLocationForTesting(QString::fromLocal8Bit(argv[1]));
    setSystemctlProgramForTesting(QString::fromLocal8Bit(argv[2]));

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    // Start counting once start-up is behind us.
    double selfStart = 0;
    double childrenStart = 0;
    QTimer::singleShot(500, [&] {
        selfStart = cpuSeconds(RUSAGE_SELF);
        childrenStart = cpuSeconds(RUSAGE_CHILDREN);
        QTimer::singleShot(seconds * 1000, [&] {
            const double self = cpuSeconds(RUSAGE_SELF) - selfStart;
            const double children = cpuSeconds(RUSAGE_CHILDREN) - childrenStart;
            const double perMinute = 60.0 / seconds;
            std::printf("status poll with %s: %.0f ms CPU per minute (app %.0f ms, systemctl %.0f ms)\n", argv[2],
                        (self + children) * perMinute * 1000, self * perMinute * 1000, children * perMinute * 1000);
            QCoreApplication::quit();
        });
    });
    return QApplication::exec();
}
