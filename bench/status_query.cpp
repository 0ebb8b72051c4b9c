// Latency and CPU of one status check as the app makes it every 3 s: the three labels asked of
// systemd's user manager over the user bus (DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus),
// from the start of the check to its result on the main thread. The CPU is this process's, all
// threads (Qt's D-Bus thread does the sending and receiving).
//
//   status_query [CHECKS]

#include "service/ServiceStatus.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QList>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {
double processCpuMs()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return double(used.tv_sec) * 1000.0 + double(used.tv_nsec) / 1e6;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const int checks = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    QObject receiver;
    const auto check = [&receiver] {
        ServiceStatus result;
        QEventLoop loop;
        startServiceCheck(&receiver, [&](const ServiceStatus &status) {
            result = status;
            loop.quit();
        });
        loop.exec();
        return result;
    };
    const ServiceStatus first = check(); // the connection and the subscription
    QList<double> times;
    times.reserve(checks);
    QElapsedTimer clock;
    const double cpuBefore = processCpuMs();
    for (int i = 0; i < checks; ++i) {
        clock.start();
        check();
        times.append(double(clock.nsecsElapsed()) / 1e6);
    }
    const double cpuPerCheck = (processCpuMs() - cpuBefore) / checks;
    std::sort(times.begin(), times.end());
    std::printf("status check (%s): median %.2f ms, 95th percentile %.2f ms, slowest %.2f ms (%d checks); "
                "CPU %.2f ms a check, %.0f ms a minute at one check every 3 s\n",
                qPrintable(first.stateText), times.at(times.size() / 2), times.at(times.size() * 95 / 100),
                times.last(), checks, cpuPerCheck, cpuPerCheck * 20);
    return 0;
}
