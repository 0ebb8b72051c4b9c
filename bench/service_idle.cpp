// The service at rest: RADIOS enabled radios (one radio-sim process serving them all on
// 127.0.0.1), the shipped settings (broadcastIntervalMs 3000, so a beacon every 2 s, and a
// held connection to each radio), beacons sent to a socket of this program on 127.0.0.1.
// After a warm-up, measures the service's CPU time (user + system) over a window and reports
// it per minute, with the service's peak resident memory and the beacons seen. With
// --hostile KIND, one more radio misbehaves that way (radio-sim's --fault) all along.
//
//   service_idle SERVICE RADIO_SIM [WINDOW_SECONDS (60)] [RADIOS (10)] [--hostile KIND]

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkDatagram>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr int warmUpMs = 12000; // past the first connections and their beacons
constexpr int beatMs = 2000;

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

// Starts radio-sim with the arguments and reads its "listening on HOST:PORT" lines.
QStringList startSimulator(QProcess &simulator, const QString &program, const QStringList &arguments, int radios)
{
    simulator.start(program, arguments);
    QStringList addresses;
    QByteArray output;
    QElapsedTimer clock;
    clock.start();
    const QRegularExpression listening(u"^listening on ([0-9.]+:\\d+)$"_s);
    while (addresses.size() < radios && clock.elapsed() < 60000 && simulator.state() != QProcess::NotRunning) {
        simulator.waitForReadyRead(1000);
        output += simulator.readAllStandardOutput();
        qsizetype end;
        while ((end = output.indexOf('\n')) >= 0) {
            const QRegularExpressionMatch match = listening.match(QString::fromUtf8(output.left(end)));
            if (match.hasMatch())
                addresses << match.captured(1);
            output.remove(0, end + 1);
        }
    }
    return addresses;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments();
    QString hostile;
    if (const qsizetype at = arguments.indexOf(u"--hostile"_s); at > 0 && at + 1 < arguments.size()) {
        hostile = arguments.at(at + 1);
        arguments.remove(at, 2);
    }
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: service_idle SERVICE RADIO_SIM [WINDOW_SECONDS] [RADIOS] [--hostile KIND]\n");
        return 2;
    }
    const int windowMs = (arguments.size() > 3 ? arguments.at(3).toInt() : 60) * 1000;
    const int radios = arguments.size() > 4 ? arguments.at(4).toInt() : 10;

    QProcess simulator;
    const QStringList addresses = startSimulator(
        simulator, arguments.at(2), {u"--count"_s, QString::number(radios), u"--serial"_s, u"1121-1104-6700"_s}, radios);
    if (addresses.size() != radios) {
        std::fprintf(stderr, "radio-sim started %lld of %d radios\n", static_cast<long long>(addresses.size()), radios);
        return 1;
    }
    QJsonArray list;
    QSet<QString> serials;
    for (int i = 0; i < radios; ++i) {
        const QString serial = radios == 1 ? u"1121-1104-6700"_s : u"1121-1104-6700-%1"_s.arg(i, 4, 10, QChar(u'0'));
        serials.insert(serial);
        list.append(QJsonObject{{u"ipAddress"_s, addresses.at(i)}, {u"serialNumber"_s, serial}, {u"enabled"_s, true}});
    }
    QProcess hostileRadio;
    if (!hostile.isEmpty()) {
        const QStringList address = startSimulator(hostileRadio, arguments.at(2),
                                                   {u"--fault"_s, hostile, u"--serial"_s, u"HOSTILE-1"_s}, 1);
        if (address.size() != 1)
            return 1;
        list.append(QJsonObject{{u"ipAddress"_s, address.first()}, {u"serialNumber"_s, u"HOSTILE-1"_s}, {u"enabled"_s, true}});
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
    listener.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 8 * 1024 * 1024);
    qint64 beacons = 0;
    QSet<QString> heard;
    bool counting = false;
    const QRegularExpression serialKey(u" serial=([^ ]+) "_s);
    QObject::connect(&listener, &QUdpSocket::readyRead, &listener, [&] {
        while (listener.hasPendingDatagrams()) {
            const QByteArray payload = listener.receiveDatagram().data().mid(28);
            if (!counting)
                continue;
            ++beacons;
            heard.insert(serialKey.match(QString::fromLatin1(payload)).captured(1));
        }
    });

    QProcess service;
    service.setStandardErrorFile(hostile.isEmpty() ? QProcess::nullDevice() : folder.filePath(u"service.log"_s));
    service.start(arguments.at(1), {u"--config"_s, config, u"--broadcast"_s,
                                    u"127.0.0.1:"_s + QString::number(listener.localPort())});
    if (!service.waitForStarted())
        return 1;
    const qint64 pid = service.processId();

    wait(warmUpMs);
    const double cpuBefore = cpuMilliseconds(pid);
    counting = true;
    wait(windowMs);
    counting = false;
    const double cpu = cpuMilliseconds(pid) - cpuBefore;
    const double peak = statusMiB(pid, "VmHWM");
    const double resident = statusMiB(pid, "VmRSS");
    const double own = statusMiB(pid, "RssAnon"); // not shared with other Qt programs
    service.terminate();
    service.waitForFinished(3000);
    for (QProcess *process : {&simulator, &hostileRadio}) {
        process->kill();
        process->waitForFinished();
    }

    const double perMinute = cpu * 60000.0 / windowMs;
    const qint64 expected = qint64(radios) * windowMs / beatMs;
    std::printf("%4d radios%s   CPU %7.1f ms per minute (%5.2f %% of a core)   peak RSS %5.1f MiB   RSS now %5.1f MiB "
                "(%4.1f MiB its own)   beacons %lld in %d s (expected about %lld), %lld of %d radios heard\n",
                radios, hostile.isEmpty() ? "" : qPrintable(u" + "_s + hostile), perMinute, perMinute / 600.0, peak,
                resident, own, static_cast<long long>(beacons), windowMs / 1000, static_cast<long long>(expected),
                static_cast<long long>((heard & serials).size()), radios);
    if (radios == 10 && hostile.isEmpty())
        std::printf("goal: under 50 ms of CPU per minute, under 15 MiB resident: %s\n",
                    perMinute < 50 && peak < 15 ? "met" : "NOT met");
    return 0;
}
