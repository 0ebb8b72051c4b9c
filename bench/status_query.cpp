// Latency of one status check as the app makes it every 3 s: the three labels asked of systemd's
// user manager over the user bus (DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus).
//
//   status_query [CHECKS]

#include "service/ServiceStatus.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QList>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const int checks = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    const ServiceStatus first = checkServiceStatus(); // the connection and the subscription
    QList<double> times;
    times.reserve(checks);
    QElapsedTimer clock;
    for (int i = 0; i < checks; ++i) {
        clock.start();
        checkServiceStatus();
        times.append(double(clock.nsecsElapsed()) / 1e6);
    }
    std::sort(times.begin(), times.end());
    std::printf("status check (%s): median %.2f ms, 95th percentile %.2f ms, slowest %.2f ms (%d checks)\n",
                qPrintable(first.stateText), times.at(times.size() / 2), times.at(times.size() * 95 / 100),
                times.last(), checks);
    return 0;
}
