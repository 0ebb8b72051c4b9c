// Starts a radio probe the way "Add Radio…" does (the controller's discover on the background
// pool) and leaves while it runs, so that tst_discovery can see what becomes of the probe's
// child process. It leaves once STARTED appears (the stand-in service writes it):
//   quit  the event loop ends and main returns, as when the user quits the app;
//   crash the process is killed outright, as in a crash.
//
//   quit-during-probe BUNDLE ADDRESS STARTED quit|crash
//
// Exit status 0 after a quit; 2 for bad arguments; 3 when the probe ended before the leaving;
// 4 when STARTED did not appear within ten seconds.

#include "app/AppDelegate.h"
#include "platform/Background.h"
#include "platform/Bundle.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.size() != 4 || (arguments.at(3) != QStringLiteral("quit") && arguments.at(3) != QStringLiteral("crash"))) {
        std::fprintf(stderr, "usage: quit-during-probe BUNDLE ADDRESS STARTED quit|crash\n");
        return 2;
    }
    setBundleLocationForTesting(arguments.at(0));
    const QString address = arguments.at(1);
    const QString started = arguments.at(2);
    const bool crash = arguments.at(3) == QStringLiteral("crash");

    AppDelegate delegate;
    runInBackground(
        &delegate, [&delegate, address] { return attempt([&] { return delegate.discover(address); }); },
        [](const Outcome<QJsonObject> &) { std::_Exit(3); });

    QElapsedTimer waited;
    waited.start();
    QTimer poll;
    poll.setInterval(10);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (QFileInfo::exists(started)) {
            if (crash)
                ::kill(::getpid(), SIGKILL);
            QCoreApplication::quit();
        } else if (waited.elapsed() > 10000) {
            QCoreApplication::exit(4);
        }
    });
    poll.start();
    return QCoreApplication::exec();
}
