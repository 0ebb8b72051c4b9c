// The service at rest: 10 enabled radios (radio-sims on 127.0.0.1), the shipped intervals
// (a beacon every 3 s, a check every 10 s), beacons sent to a socket of this program on
// 127.0.0.1. After a warm-up, measures the service's CPU time (user + system) over a window
// and reports it per minute, with the service's peak resident memory and the beacons seen.
//
//   service_idle SERVICE RADIO_SIM [WINDOW_SECONDS (default 60)]

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkDatagram>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <cstdio>
#include <memory>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
constexpr int radios = 10;
constexpr int warmUpMs = 12000; // past the first check round and its beacons

// CPU time of a process in milliseconds: the scheduler's nanosecond count where the kernel
// keeps it, else utime + stime (in clock ticks, 10 ms apart).
double cpuMilliseconds(qint64 pid)
{
    QFile schedstat(u"/proc/%1/schedstat"_s.arg(pid));
    if (schedstat.open(QIODevice::ReadOnly)) {
        bool ok = false;
        const double nanoseconds = schedstat.readAll().split(' ').first().toDouble(&ok);
        if (ok)
            return nanoseconds / 1e6;
    }
    QFile stat(u"/proc/%1/stat"_s.arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    // Fields after the parenthesised command name, starting at field 3.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    const double ticks = fields.value(11).toDouble() + fields.value(12).toDouble(); // fields 14 and 15
    return ticks * 1000.0 / double(sysconf(_SC_CLK_TCK));
}

// A "Key:   N kB" line of /proc/PID/status, in MiB.
double statusMiB(qint64 pid, const QByteArray &key)
{
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).trimmed().split(' ').first().toDouble() / 1024.0;
    return -1;
}

void wait(int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, int(milliseconds - clock.elapsed()));
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: service_idle SERVICE RADIO_SIM [WINDOW_SECONDS]\n");
        return 2;
    }
    const int windowMs = (arguments.size() > 3 ? arguments.at(3).toInt() : 60) * 1000;

    std::vector<std::unique_ptr<QProcess>> simulators;
    QJsonArray list;
    for (int i = 0; i < radios; ++i) {
        auto simulator = std::make_unique<QProcess>();
        simulator->start(arguments.at(2), {u"--serial"_s, u"1121-1104-6700-%1"_s.arg(i, 4, 10, QChar(u'0')), u"--name"_s,
                                           u"Radio%1"_s.arg(i)});
        simulator->waitForReadyRead(5000);
        const QRegularExpressionMatch match =
            QRegularExpression(u"listening on ([0-9.]+:\\d+)"_s).match(QString::fromUtf8(simulator->readAllStandardOutput()));
        if (!match.hasMatch()) {
            std::fprintf(stderr, "radio-sim %d did not start\n", i);
            return 1;
        }
        list.append(QJsonObject{{u"ipAddress"_s, match.captured(1)},
                                {u"serialNumber"_s, u"1121-1104-6700-%1"_s.arg(i, 4, 10, QChar(u'0'))},
                                {u"enabled"_s, true}});
        simulators.push_back(std::move(simulator));
    }

    QTemporaryDir folder;
    const QString config = folder.filePath(u"config.json"_s);
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly))
        return 1;
    file.write(QJsonDocument(QJsonObject{{u"broadcastIntervalMs"_s, 3000}, {u"radios"_s, list}}).toJson());
    file.close();

    QUdpSocket listener;
    listener.bind(QHostAddress::LocalHost, 0);
    qint64 beacons = 0;
    QObject::connect(&listener, &QUdpSocket::readyRead, &listener, [&] {
        while (listener.hasPendingDatagrams()) {
            listener.receiveDatagram();
            ++beacons;
        }
    });

    QProcess service;
    service.setStandardErrorFile(QProcess::nullDevice());
    service.start(arguments.at(1), {u"--config"_s, config, u"--broadcast"_s,
                                    u"127.0.0.1:"_s + QString::number(listener.localPort())});
    if (!service.waitForStarted())
        return 1;
    const qint64 pid = service.processId();

    wait(warmUpMs);
    const double cpuBefore = cpuMilliseconds(pid);
    const qint64 beaconsBefore = beacons;
    wait(windowMs);
    const double cpu = cpuMilliseconds(pid) - cpuBefore;
    const qint64 seen = beacons - beaconsBefore;
    const double peak = statusMiB(pid, "VmHWM");
    const double resident = statusMiB(pid, "VmRSS");
    const double own = statusMiB(pid, "RssAnon"); // not shared with other Qt programs
    service.terminate();
    service.waitForFinished(3000);
    for (const auto &simulator : simulators) {
        simulator->kill();
        simulator->waitForFinished();
    }

    const double perMinute = cpu * 60000.0 / windowMs;
    std::printf("idle service, %d radios   CPU %6.1f ms per minute   peak RSS %5.1f MiB   RSS now %5.1f MiB "
                "(%4.1f MiB its own)   beacons %lld in %d s (expected %d)\n",
                radios, perMinute, peak, resident, own, static_cast<long long>(seen), windowMs / 1000,
                radios * windowMs / 3000);
    std::printf("goal: under 50 ms of CPU per minute, under 15 MiB resident: %s\n",
                perMinute < 50 && peak < 15 ? "met" : "NOT met");
    return 0;
}
