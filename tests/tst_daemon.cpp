// The service executable "Veldspar" as its callers see it: the lines it prints, its exit
// status, the files it writes and the beacons it sends. Every radio is a radio-sim on
// 127.0.0.1 and every beacon goes to a socket of this test on 127.0.0.1 (--broadcast), except
// in the tests of beacons on local networks: those run the service, its radio and listeners
// in network namespaces of their own (as root only).
#include "RunningService.h"
#include "TestSupport.h"

#include "daemon/BeaconFields.h"
#include "daemon/BeaconSender.h"
#include "daemon/CommandChannel.h"
#include "daemon/RadioState.h"
#include "service/LiveState.h"

#include <QAccessible>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QMainWindow>
#include <QNetworkDatagram>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QThread>
#include <QUdpSocket>
#include <QtEndian>
#include <QtTest>

#include <linux/if_tun.h>
#include <linux/securebits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
const QString serviceProgram = QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE);
const QString simulatorProgram = QStringLiteral(VELDSPAR_RADIO_SIM);
const QString placeholderSerial = u"0000-0000-0000-0000"_s;

// ---------------------------------------------------------------------------------------
// A beacon as a listener reads it, written from the radios' protocol description alone.

struct Beacon
{
    qsizetype datagramSize = 0;
    quint32 packetType = 0;
    bool classIdPresent = false;
    bool trailerPresent = false;
    quint32 tsi = 0;
    quint32 tsf = 0;
    quint32 packetCount = 0;
    quint32 sizeWords = 0;
    quint32 streamId = 0;
    quint32 oui = 0;
    quint32 informationClass = 0;
    quint32 packetClass = 0;
    quint32 integerTimestamp = 0;
    quint64 fractionalTimestamp = 0;
    QByteArray payload;         // the text, without its padding
    QByteArray padding;         // what follows the text up to the packet's end
    QList<std::pair<QString, QString>> fields; // keys in lower case, 0x7F read as a space

    QString value(const QString &key) const
    {
        for (const auto &field : fields)
            if (field.first == key)
                return field.second;
        return u"<missing>"_s;
    }
    QStringList keys() const
    {
        QStringList result;
        for (const auto &field : fields)
            result << field.first;
        return result;
    }
};

quint32 wordAt(const QByteArray &bytes, qsizetype index) { return qFromBigEndian<quint32>(bytes.constData() + 4 * index); }

std::optional<Beacon> decodeBeacon(const QByteArray &datagram)
{
    if (datagram.size() < 28)
        return std::nullopt;
    Beacon beacon;
    beacon.datagramSize = datagram.size();
    const quint32 header = wordAt(datagram, 0);
    beacon.packetType = header >> 28;
    beacon.classIdPresent = (header >> 27) & 1;
    beacon.trailerPresent = (header >> 26) & 1;
    beacon.tsi = (header >> 22) & 3;
    beacon.tsf = (header >> 20) & 3;
    beacon.packetCount = (header >> 16) & 0xF;
    beacon.sizeWords = header & 0xFFFF;
    beacon.streamId = wordAt(datagram, 1);
    beacon.oui = wordAt(datagram, 2) & 0xFFFFFF;
    beacon.informationClass = wordAt(datagram, 3) >> 16;
    beacon.packetClass = wordAt(datagram, 3) & 0xFFFF;
    beacon.integerTimestamp = wordAt(datagram, 4);
    beacon.fractionalTimestamp = quint64(wordAt(datagram, 5)) << 32 | wordAt(datagram, 6);
    const QByteArray body = datagram.mid(28, qsizetype(beacon.sizeWords) * 4 - 28);
    const qsizetype end = body.indexOf('\0');
    beacon.payload = end < 0 ? body : body.left(end);
    beacon.padding = end < 0 ? QByteArray() : body.mid(end);
    for (const QByteArray &token : beacon.payload.split(' ')) {
        const qsizetype equals = token.indexOf('=');
        if (equals < 0)
            continue; // listeners skip tokens that do not split in two
        QByteArray value = token.mid(equals + 1);
        value.replace('\x7f', ' ');
        beacon.fields.append({QString::fromUtf8(token.left(equals)).toLower(), QString::fromUtf8(value)});
    }
    return beacon;
}

// ---------------------------------------------------------------------------------------
// Processes and sockets of the tests.

struct Run
{
    int status = -1;
    bool crashed = false;
    QString output; // standard output and error together, as the app reads them
    qint64 elapsedMs = 0;

    QStringList lines() const { return output.split(u'\n', Qt::SkipEmptyParts); }
    QString lastLine() const { return lines().value(lines().size() - 1); }
};

Run runProgram(const QString &program, const QStringList &arguments, int timeoutMs = 30000,
               const std::function<void()> &inChild = {})
{
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (inChild)
        process.setChildProcessModifier(inChild);
    QElapsedTimer clock;
    clock.start();
    process.start();
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.output = u"<did not finish>"_s;
        return run;
    }
    run.elapsedMs = clock.elapsed();
    run.crashed = process.exitStatus() != QProcess::NormalExit;
    run.status = process.exitCode();
    run.output = QString::fromUtf8(process.readAll());
    return run;
}

Run runVeldspar(const QStringList &arguments, int timeoutMs = 30000, const std::function<void()> &inChild = {})
{
    return runProgram(serviceProgram, arguments, timeoutMs, inChild);
}

// A run on a thread of its own, for the probes that must wait out a time-out while the other
// tests go on; its time is measured where it ends, not where a test looks at it.
class BackgroundRun
{
public:
    void start(const QStringList &arguments)
    {
        m_thread.reset(QThread::create([this, arguments] { m_run = runVeldspar(arguments, 40000); }));
        m_thread->start();
    }
    Run result()
    {
        if (m_thread)
            m_thread->wait();
        return m_run;
    }
    ~BackgroundRun() { result(); }

private:
    std::unique_ptr<QThread> m_thread;
    Run m_run;
};

class RadioSim
{
public:
    explicit RadioSim(const QStringList &arguments = {}, const std::function<void()> &inChild = {})
    {
        m_process.setProgram(simulatorProgram);
        m_process.setArguments(arguments);
        if (inChild)
            m_process.setChildProcessModifier(inChild);
        m_process.start();
        QElapsedTimer clock;
        clock.start();
        while (!m_output.contains('\n') && clock.elapsed() < 10000 && m_process.state() != QProcess::NotRunning) {
            m_process.waitForReadyRead(200);
            m_output += m_process.readAllStandardOutput();
        }
        const QRegularExpressionMatch match =
            QRegularExpression(u"^listening on ([0-9.]+):(\\d+)\n"_s).match(QString::fromUtf8(m_output));
        if (match.hasMatch()) {
            m_host = match.captured(1);
            m_port = quint16(match.captured(2).toUInt());
        }
    }
    ~RadioSim() { stop(); }

    bool listening() const { return m_port != 0; }
    quint16 port() const { return m_port; }
    QString address() const { return m_host + u':' + QString::number(m_port); }
    qint64 pid() const { return m_process.processId(); }
    // A line on the simulator's standard input ("join …", "leave …").
    void tell(const QByteArray &line)
    {
        m_process.write(line + '\n');
        m_process.waitForBytesWritten(1000);
    }
    // Waits, with the test's event loop running, until the simulator has printed text.
    bool printed(const QByteArray &text, int timeoutMs = 5000)
    {
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < timeoutMs) {
            m_process.waitForReadyRead(0);
            m_output += m_process.readAllStandardOutput();
            if (m_output.contains(text))
                return true;
            QTest::qWait(5);
        }
        return false;
    }
    int connections()
    {
        while (m_process.waitForReadyRead(0))
            m_output += m_process.readAllStandardOutput();
        m_output += m_process.readAllStandardOutput();
        return int(m_output.count("\nconnection "));
    }
    void stop()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

private:
    QProcess m_process;
    QByteArray m_output;
    QString m_host;
    quint16 m_port = 0;
};


// The service's state file as a test reads it: nothing while it is missing or unreadable.
std::optional<QJsonObject> stateAt(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    return document.isObject() ? std::optional<QJsonObject>(document.object()) : std::nullopt;
}

// The first entry in the state file whose text at KEY is VALUE.
QJsonObject liveRadioWith(const std::optional<QJsonObject> &state, const QString &key, const QString &value)
{
    if (!state)
        return {};
    for (const QJsonValue &radio : state->value(u"radios"_s).toArray())
        if (radio.toObject().value(key).toString() == value)
            return radio.toObject();
    return {};
}

// The entry of one radio in the state file, by its configured serial.
QJsonObject liveRadio(const std::optional<QJsonObject> &state, const QString &serial)
{
    return liveRadioWith(state, u"serialNumber"_s, serial);
}

// What this process wrote on its standard error while `work` ran.
QString standardErrorDuring(const std::function<void()> &work)
{
    QTemporaryFile file;
    if (!file.open())
        return u"<cannot capture standard error>"_s;
    std::fflush(stderr);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(file.handle(), STDERR_FILENO);
    work();
    std::fflush(stderr);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    file.seek(0);
    return QString::fromUtf8(file.readAll());
}

// The entry of one radio in the state file, by its configured address.
QJsonObject liveRadioAt(const std::optional<QJsonObject> &state, const QString &address)
{
    return liveRadioWith(state, u"ipAddress"_s, address);
}

// A runtime folder of the test's own, private as the login manager makes it.
QString privateFolder(const QString &path)
{
    QDir().mkpath(path);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

// XDG_RUNTIME_DIR for the services a test starts, put back when the test ends.
class RuntimeFolder
{
public:
    explicit RuntimeFolder(const QString &path) : m_old(qgetenv("XDG_RUNTIME_DIR")), m_had(qEnvironmentVariableIsSet("XDG_RUNTIME_DIR"))
    {
        if (path.isNull())
            qunsetenv("XDG_RUNTIME_DIR");
        else
            qputenv("XDG_RUNTIME_DIR", QFile::encodeName(path));
    }
    ~RuntimeFolder()
    {
        if (m_had)
            qputenv("XDG_RUNTIME_DIR", m_old);
        else
            qunsetenv("XDG_RUNTIME_DIR");
    }

private:
    QByteArray m_old;
    bool m_had;
};

// A runtime folder as the login manager makes it: this user's own, closed to others.
bool makePrivateFolder(const QString &path)
{
    return QDir().mkpath(path) && QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

// The lines of a log that mention text.
QStringList linesWith(const QString &log, const QString &text)
{
    QStringList found;
    for (const QString &line : log.split(u'\n'))
        if (line.contains(text))
            found << line;
    return found;
}

// A port on 127.0.0.1 where nothing listens: taken from the system, then let go.
quint16 closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    const quint16 port = server.serverPort();
    server.close();
    return port;
}

// A listener whose queue of connections is full, so that further attempts get no answer at
// all (the SYN is dropped), like an address behind a VPN that is down.
class FullListener
{
public:
    FullListener()
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
            || ::listen(m_listener, 0) != 0
            || ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        m_port = ntohs(address.sin_port);
        for (int &filler : m_fillers) {
            filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            [[maybe_unused]] const int started =
                ::connect(filler, reinterpret_cast<sockaddr *>(&address), sizeof address);
        }
        QThread::msleep(100);
    }
    ~FullListener()
    {
        for (int filler : m_fillers)
            ::close(filler);
        ::close(m_listener);
    }
    quint16 port() const { return m_port; }

private:
    int m_listener = -1;
    int m_fillers[3] = {-1, -1, -1};
    quint16 m_port = 0;
};

struct Received
{
    Beacon beacon;
    qint64 atMs = 0; // on the test's clock
};

class BeaconListener
{
public:
    // On 127.0.0.1, on a port of the system's choosing.
    explicit BeaconListener(const QElapsedTimer &clock) : BeaconListener(clock, -1) { m_socket.bind(QHostAddress::LocalHost, 0); }
    // On a socket bound already, which it keeps; -1: on none, so it hears nothing.
    BeaconListener(const QElapsedTimer &clock, int boundSocket) : m_clock(clock)
    {
        if (boundSocket >= 0)
            m_socket.setSocketDescriptor(boundSocket, QAbstractSocket::BoundState);
        QObject::connect(&m_socket, &QUdpSocket::readyRead, &m_socket, [this] {
            while (m_socket.hasPendingDatagrams()) {
                QByteArray datagram(m_socket.pendingDatagramSize(), '\0');
                m_socket.readDatagram(datagram.data(), datagram.size());
                m_datagrams << datagram;
                if (const std::optional<Beacon> beacon = decodeBeacon(datagram))
                    m_received << Received{*beacon, m_clock.elapsed()};
            }
        });
    }
    QString destination() const { return u"127.0.0.1:"_s + QString::number(m_socket.localPort()); }
    const QList<QByteArray> &datagrams() const { return m_datagrams; }
    QList<Received> from(const QString &serial, qint64 sinceMs = 0) const
    {
        QList<Received> result;
        for (const Received &received : m_received)
            if (received.beacon.value(u"serial"_s) == serial && received.atMs >= sinceMs)
                result << received;
        return result;
    }
    const QList<Received> &all() const { return m_received; }

private:
    const QElapsedTimer &m_clock;
    QUdpSocket m_socket;
    QList<QByteArray> m_datagrams;
    QList<Received> m_received;
};

QJsonObject radioEntry(const QString &address, const QString &serial, const QJsonValue &enabled = true)
{
    return {{u"ipAddress"_s, address}, {u"serialNumber"_s, serial}, {u"enabled"_s, enabled}};
}

QByteArray configuration(const QList<QJsonObject> &radios, int intervalMs)
{
    QJsonArray list;
    for (const QJsonObject &radio : radios)
        list.append(radio);
    return QJsonDocument(QJsonObject{{u"broadcastIntervalMs"_s, intervalMs}, {u"radios"_s, list}}).toJson();
}

void writeInPlace(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), bytes.size());
}

// As the import mode and most editors do: a new file renamed over the old one.
void replaceByRename(const QString &path, const QByteArray &bytes)
{
    const QString temporary = path + u".new"_s;
    writeInPlace(temporary, bytes);
    QCOMPARE(std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()), 0);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// The keys of a real radio's beacon, in the order it sends them.
const QStringList realBeaconKeys{
    u"discovery_protocol_version"_s, u"model"_s, u"serial"_s, u"version"_s, u"nickname"_s, u"callsign"_s, u"ip"_s,
    u"port"_s, u"status"_s, u"inuse_ip"_s, u"inuse_host"_s, u"max_licensed_version"_s, u"radio_license_id"_s,
    u"requires_additional_license"_s, u"fpc_mac"_s, u"wan_connected"_s, u"licensed_clients"_s,
    u"available_clients"_s, u"max_panadapters"_s, u"available_panadapters"_s, u"max_slices"_s,
    u"available_slices"_s, u"gui_client_ips"_s, u"gui_client_hosts"_s, u"gui_client_programs"_s,
    u"gui_client_stations"_s, u"gui_client_handles"_s};

// The values of these keys, in this order, joined by " | ", for one comparison that shows
// every difference at once.
QString valuesOf(const Beacon &beacon, const QStringList &keys)
{
    QStringList values;
    for (const QString &key : keys)
        values << key + u'=' + beacon.value(key);
    return values.join(u" | "_s);
}

Beacon beaconWith(const QList<std::pair<QString, QString>> &fields)
{
    Beacon beacon;
    beacon.fields = fields;
    return beacon;
}

// A process's resident memory at its peak, in MiB, from /proc (unused under the sanitizer).
[[maybe_unused]] double peakResidentMiB(qint64 pid)
{
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return -1;
}

QStringList backupsBeside(const QString &path)
{
    return QDir(QFileInfo(path).path() + u"/backups"_s).entryList(QDir::Files, QDir::Name);
}

// In the child before it starts: when the tests run as root, give up what root has beyond a
// plain user, so that file permissions apply to the service as they do on a desktop.
void withoutRootPowers() { ::prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED); }

const QRegularExpression backupName(u"^config-\\d{4}-\\d{2}-\\d{2}T\\d{2}-\\d{2}-\\d{2}\\.\\d{3}Z\\.json$"_s);

// ---------------------------------------------------------------------------------------
// Network layouts of the tests' own: namespaces joined by veth pairs, or by a tunnel that the
// test carries itself. Their traffic stays inside them; they go when the test ends.

QString ipProgram()
{
    return QStandardPaths::findExecutable(u"ip"_s, {u"/usr/sbin"_s, u"/sbin"_s, u"/usr/bin"_s, u"/bin"_s});
}

// Why network layouts cannot be made here; nothing when they can. Asked once, by making a
// namespace and deleting it again.
QString whyNoNetworkLayouts()
{
    static const QString why = [] {
        if (::geteuid() != 0)
            return u"network layouts need root (network namespaces, veth pairs, tun interfaces)"_s;
        if (ipProgram().isEmpty())
            return u"network layouts need iproute2's ip, which is not installed"_s;
        if (!QFileInfo::exists(u"/dev/net/tun"_s))
            return u"network layouts need /dev/net/tun"_s;
        const QString probe = u"veldspar-%1-probe"_s.arg(QCoreApplication::applicationPid());
        const Run made = runProgram(ipProgram(), {u"netns"_s, u"add"_s, probe}, 10000);
        if (made.status != 0)
            return u"cannot make a network namespace here (ip netns add: %1)"_s.arg(made.output.trimmed());
        runProgram(ipProgram(), {u"netns"_s, u"delete"_s, probe}, 10000);
        return QString();
    }();
    return why;
}

QByteArray namespacePath(const QString &space) { return QFile::encodeName(u"/run/netns/"_s + space); }

// Runs `make` on a thread that has joined the network namespace SPACE and returns what it
// made: a socket or a tun interface made there stays there, whichever thread uses it later.
// errno is the thread's, after `make`.
int madeInside(const QString &space, const std::function<int()> &make)
{
    int made = -1;
    int error = 0;
    std::thread([&] {
        const int fd = ::open(namespacePath(space).constData(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0 && ::setns(fd, CLONE_NEWNET) == 0)
            made = make();
        error = errno;
        if (fd >= 0)
            ::close(fd);
    }).join();
    errno = error;
    return made;
}

// For a child process: it runs inside the network namespace SPACE, or not at all.
std::function<void()> inside(const QString &space)
{
    const QByteArray path = namespacePath(space);
    return [path] {
        const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::setns(fd, CLONE_NEWNET) != 0)
            ::_exit(126);
    };
}

// The namespaces of one test, named after this process so that runs side by side never meet,
// deleted with every interface in them when the test ends, also when it fails.
class NetworkLab
{
public:
    NetworkLab() = default;
    NetworkLab(const NetworkLab &) = delete;
    NetworkLab &operator=(const NetworkLab &) = delete;
    ~NetworkLab()
    {
        for (const QString &space : std::as_const(m_spaces))
            runProgram(ipProgram(), {u"netns"_s, u"delete"_s, space}, 10000);
    }

    // A new namespace for ROLE, its loopback up; its name.
    QString add(const QString &role)
    {
        const QString name = u"veldspar-%1-%2"_s.arg(QCoreApplication::applicationPid()).arg(role);
        if (ip({u"netns"_s, u"add"_s, name}))
            m_spaces << name;
        in(name, {u"link set lo up"_s});
        return name;
    }
    // Runs ip commands inside SPACE ("addr add 10.0.0.1/24 dev eth0", ...), in order.
    void in(const QString &space, const QStringList &commands)
    {
        for (const QString &command : commands)
            ip(QStringList{u"-n"_s, space} + command.split(u' '));
    }
    // SPACE routes between its interfaces.
    void forwards(const QString &space)
    {
        const int written = madeInside(space, [] {
            QFile forwarding(u"/proc/sys/net/ipv4/ip_forward"_s);
            return forwarding.open(QIODevice::WriteOnly) && forwarding.write("1") == 1 ? 0 : -1;
        });
        if (written != 0)
            failed(u"cannot turn forwarding on in %1"_s.arg(space));
    }
    void failed(const QString &problem) { m_problems << problem; }
    // What failed, for the test's message; nothing when all went well.
    QString problems() const { return m_problems.join(u'\n'); }

private:
    bool ip(const QStringList &arguments)
    {
        const Run run = runProgram(ipProgram(), arguments, 10000);
        if (run.status != 0)
            m_problems << u"ip %1: %2"_s.arg(arguments.join(u' '), run.output.trimmed());
        return run.status == 0;
    }

    QStringList m_spaces;
    QStringList m_problems;
};

// A UDP socket for a test's listener inside SPACE, bound to ADDRESS:PORT with one reuse option
// set, as discovery clients bind 0.0.0.0:4992: some with SO_REUSEADDR only, others with
// SO_REUSEPORT only. -1, and one more of the lab's problems, when the port cannot be had.
int boundInside(NetworkLab &lab, const QString &space, int reuseOption, quint32 address = INADDR_ANY, quint16 port = radioPort)
{
    const int socket = madeInside(space, [=] {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(port);
        local.sin_addr.s_addr = htonl(address);
        if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, reuseOption, &on, sizeof on) == 0
            && ::bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0)
            return fd;
        if (fd >= 0)
            ::close(fd);
        return -1;
    });
    if (socket < 0)
        lab.failed(u"cannot bind port %1 inside %2: %3"_s.arg(port).arg(space, QString::fromLocal8Bit(std::strerror(errno))));
    return socket;
}

// A VPN as small as can be: a tun interface NAME in each of two namespaces, and a thread of
// the test that carries every packet from one to the other.
class Tunnel
{
public:
    Tunnel(const QString &one, const QString &other, const QString &name) : m_ends{tunInside(one, name), tunInside(other, name)}
    {
        if (made())
            m_carrier = std::thread([this] { carry(); });
    }
    Tunnel(const Tunnel &) = delete;
    Tunnel &operator=(const Tunnel &) = delete;
    ~Tunnel()
    {
        m_stop = true;
        if (m_carrier.joinable())
            m_carrier.join();
        for (int end : m_ends)
            if (end >= 0)
                ::close(end);
    }
    bool made() const { return m_ends[0] >= 0 && m_ends[1] >= 0; }

private:
    static int tunInside(const QString &space, const QString &name)
    {
        const QByteArray interface = name.toLatin1();
        return madeInside(space, [&interface] {
            const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
            ifreq request{};
            request.ifr_flags = IFF_TUN | IFF_NO_PI;
            std::strncpy(request.ifr_name, interface.constData(), IFNAMSIZ - 1);
            if (fd >= 0 && ::ioctl(fd, TUNSETIFF, &request) == 0)
                return fd;
            if (fd >= 0)
                ::close(fd);
            return -1;
        });
    }
    void carry()
    {
        pollfd ends[2] = {{m_ends[0], POLLIN, 0}, {m_ends[1], POLLIN, 0}};
        std::vector<char> packet(65536);
        while (!m_stop) {
            if (::poll(ends, 2, 100) <= 0) // bounded, so that the end of the test is seen
                continue;
            for (int i = 0; i < 2; ++i) {
                if (ends[i].revents & (POLLERR | POLLHUP | POLLNVAL))
                    return;
                if (!(ends[i].revents & POLLIN))
                    continue;
                const ssize_t size = ::read(m_ends[i], packet.data(), packet.size());
                if (size > 0) {
                    [[maybe_unused]] const ssize_t written = ::write(m_ends[1 - i], packet.data(), size_t(size));
                }
            }
        }
    }

    int m_ends[2];
    std::atomic<bool> m_stop = false;
    std::thread m_carrier;
};

// How this computer reaches the radio's site.
enum class Way {
    FullTunnel,    // a VPN's tun, the default route through it
    SplitTunnel,   // a point-to-point link (/32 with a peer), the default route through the LAN
    EthernetLink,  // a tap-like link with a /24 on which the radio sits
    RouterOnTheLan, // the LAN's router runs a site-to-site VPN
    TunnelOnly,    // a full tunnel and no LAN at all
};

// The computer that runs the service ("host"), its LAN ("lan", where the LAN's other computers
// listen; it is the router too with RouterOnTheLan) and the radio's site ("site").
struct Layout
{
    QString host;
    QString lan;
    QString site;
    QString radio; // where the radio listens, inside site
    std::unique_ptr<Tunnel> tunnel;
};

// One end of a link: its namespace, its interface and how that is addressed ("10.9.0.2/24 brd +"
// or "10.8.0.2 peer 10.8.0.1").
struct End
{
    QString space;
    QString interface;
    QString address;
};

void bringUp(NetworkLab &lab, const End &end)
{
    lab.in(end.space, {u"addr add %1 dev %2"_s.arg(end.address, end.interface), u"link set %1 up"_s.arg(end.interface)});
}

// A veth pair, one end in each namespace, both addressed and up.
void cable(NetworkLab &lab, const End &one, const End &other)
{
    lab.in(one.space, {u"link add %1 type veth peer name %2 netns %3"_s.arg(one.interface, other.interface, other.space)});
    bringUp(lab, one);
    bringUp(lab, other);
}

// The LAN as DHCP would set it up: lan0 on the host, 192.168.77.0/24 with its broadcast,
// the router at .1.
void joinLan(NetworkLab &lab, const Layout &layout)
{
    cable(lab, {layout.host, u"lan0"_s, u"192.168.77.2/24 brd +"_s}, {layout.lan, u"eth0"_s, u"192.168.77.1/24 brd +"_s});
}

Layout makeLayout(NetworkLab &lab, Way way)
{
    Layout layout{lab.add(u"host"_s), lab.add(u"lan"_s), lab.add(u"site"_s), {}, {}};
    const bool fullTunnel = way == Way::FullTunnel || way == Way::TunnelOnly;
    if (way != Way::TunnelOnly)
        joinLan(lab, layout);
    switch (way) {
    case Way::FullTunnel:
    case Way::TunnelOnly:
        layout.tunnel = std::make_unique<Tunnel>(layout.host, layout.site, u"tun0"_s);
        if (!layout.tunnel->made())
            lab.failed(u"cannot make the tun interfaces"_s);
        bringUp(lab, {layout.host, u"tun0"_s, u"10.8.0.2 peer 10.8.0.1"_s});
        bringUp(lab, {layout.site, u"tun0"_s, u"10.8.0.1 peer 10.8.0.2"_s});
        layout.radio = u"10.8.0.1"_s;
        break;
    case Way::SplitTunnel:
        cable(lab, {layout.host, u"vpn0"_s, u"10.8.0.2 peer 10.8.0.1"_s}, {layout.site, u"vpn0"_s, u"10.8.0.1 peer 10.8.0.2"_s});
        layout.radio = u"10.8.0.1"_s;
        break;
    case Way::EthernetLink:
        cable(lab, {layout.host, u"site0"_s, u"10.9.0.2/24 brd +"_s}, {layout.site, u"eth0"_s, u"10.9.0.1/24 brd +"_s});
        layout.radio = u"10.9.0.1"_s;
        break;
    case Way::RouterOnTheLan:
        cable(lab, {layout.lan, u"wan0"_s, u"10.9.0.1/24 brd +"_s}, {layout.site, u"eth0"_s, u"10.9.0.2/24 brd +"_s});
        lab.forwards(layout.lan);
        lab.in(layout.site, {u"route add default via 10.9.0.1"_s});
        layout.radio = u"10.9.0.2"_s;
        break;
    }
    lab.in(layout.host, {fullTunnel ? u"route add default dev tun0"_s : u"route add default via 192.168.77.1"_s});
    return layout;
}

// The beat of the tests on network layouts: short, so that a few seconds hold many beats.
constexpr int layoutBeatMs = 250;

QElapsedTimer startedClock()
{
    QElapsedTimer clock;
    clock.start();
    return clock;
}

// One test's network layout, the radio (a radio-sim) at its site and the service on its host
// that announces the radio on the local networks, or sends its beacons to DESTINATIONS; with
// listeners on the LAN and at the radio's site from before the service starts. All of it goes
// when the test ends.
class LayoutRun
{
public:
    LayoutRun(Way way, const QString &serial, const QString &config, const QStringList &destinations = {})
        : layout(makeLayout(lab, way)), clock(startedClock()), onLan(clock, boundInside(lab, layout.lan, SO_REUSEADDR)),
          atTheSite(clock, boundInside(lab, layout.site, SO_REUSEADDR)),
          radio({u"--listen"_s, layout.radio, u"--port"_s, u"4992"_s, u"--serial"_s, serial}, inside(layout.site)),
          service(written(config, configuration({radioEntry(layout.radio + u":4992"_s, serial)}, layoutBeatMs)),
                  destinations, inside(layout.host)),
          m_serial(serial)
    {
    }

    // Nothing when LISTENER heard the radio once a beat since SINCEMS: each beacon's packet
    // count follows the one before (a second copy of a beacon repeats it) and there are about
    // as many as beats passed. Otherwise what it heard, for the test's message.
    QString onceABeat(const BeaconListener &listener, qint64 sinceMs) const
    {
        const QList<Received> beacons = listener.from(m_serial, sinceMs);
        const qint64 windowMs = clock.elapsed() - sinceMs;
        const qint64 beats = windowMs / layoutBeatMs;
        if (beacons.size() < beats / 2 || beacons.size() > beats + beats / 2 + 1)
            return u"%1 beacons in %2 ms at a beat of %3 ms"_s.arg(beacons.size()).arg(windowMs).arg(layoutBeatMs);
        for (qsizetype i = 1; i < beacons.size(); ++i) {
            const quint32 count = beacons.at(i).beacon.packetCount;
            const quint32 before = beacons.at(i - 1).beacon.packetCount;
            if (count != (before + 1) % 16)
                return u"packet count %1 after %2, %3 ms apart"_s.arg(count).arg(before).arg(beacons.at(i).atMs - beacons.at(i - 1).atMs);
        }
        return {};
    }

    NetworkLab lab;
    Layout layout;
    QElapsedTimer clock;
    BeaconListener onLan;
    BeaconListener atTheSite;
    RadioSim radio;
    RunningService service;

private:
    static QString written(const QString &path, const QByteArray &bytes)
    {
        writeInPlace(path, bytes);
        return path;
    }

    QString m_serial;
};

// The last thing the service said of where a radio is announced: "is announced on lan0." ...
QString lastSaidWhere(const QString &log)
{
    static const QRegularExpression where(u" (is announced on .+|is not announced: it is on the network of .+)$"_s);
    const QStringList lines = log.split(u'\n', Qt::SkipEmptyParts);
    for (qsizetype i = lines.size() - 1; i >= 0; --i)
        if (const QRegularExpressionMatch match = where.match(lines.at(i)); match.hasMatch())
            return match.captured(1);
    return {};
}
} // namespace

Q_DECLARE_METATYPE(Way)

class DaemonTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    // The two probes that must wait out a time-out run from the start, beside the other tests.
    std::unique_ptr<RadioSim> m_silentRadio;
    std::unique_ptr<FullListener> m_fullListener;
    BackgroundRun m_silentProbe;
    BackgroundRun m_unreachableProbe;

    QString path(const QString &name) const { return m_dir.filePath(name); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QFileInfo(serviceProgram).isExecutable());
        QVERIFY(QFileInfo(simulatorProgram).isExecutable());
        // The services started here publish their state in a runtime folder of the suite's
        // own, never in the session's.
        const QString runtime = path(u"runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime));
        m_silentRadio = std::make_unique<RadioSim>(QStringList{u"--fault"_s, u"silent"_s});
        QVERIFY(m_silentRadio->listening());
        m_silentProbe.start({u"--discover"_s, m_silentRadio->address()});
        m_fullListener = std::make_unique<FullListener>();
        QVERIFY(m_fullListener->port() != 0);
        m_unreachableProbe.start({u"--discover"_s, u"127.0.0.1:"_s + QString::number(m_fullListener->port())});
    }

    // ---- --discover ----

    void discoveryPrintsTheRadioAsTheLastLine()
    {
        RadioSim radio({u"--serial"_s, u"1121-1104-6700-2912"_s, u"--model"_s, u"FLEX-8600"_s, u"--name"_s,
                        u"Remote Shack"_s, u"--callsign"_s, u"K1ABC"_s, u"--version"_s, u"4.1.3.39644"_s});
        QVERIFY(radio.listening());
        const Run run = runVeldspar({u"--discover"_s, radio.address()});
        QCOMPARE(run.status, 0);
        QVERIFY2(run.lines().size() >= 2, qPrintable(run.output)); // progress first
        QVERIFY(run.lines().first().startsWith(u"Connecting to 127.0.0.1"_s));
        QCOMPARE(run.lastLine(),
                 u"{\"callsign\":\"K1ABC\",\"enabled\":true,\"ipAddress\":\"%1\",\"model\":\"FLEX-8600\","
                 u"\"name\":\"Remote Shack\",\"serialNumber\":\"1121-1104-6700-2912\",\"version\":\"4.1.3.39644\"}"_s
                     .arg(radio.address()));
        QVERIFY(run.output.endsWith(u"}\n"_s));
        // It asked exactly what it needs.
        QCOMPARE(radio.connections(), 1);
    }

    void discoveryRefusesASerialLongerThanARadios()
    {
        const QString serial(1119, u'7');
        RadioSim radio({u"--serial"_s, serial, u"--name"_s, u"Shack"_s});
        QVERIFY(radio.listening());
        const Run run = runVeldspar({u"--discover"_s, radio.address()});
        QCOMPARE(run.status, 1);
        QVERIFY2(!run.output.contains(u"7777777777777777777777777777777777"_s), qPrintable(run.output));
        QCOMPARE(run.lastLine(), u"The radio at %1 reported a serial number of 1119 characters; a radio's has at most 32, "
                                 u"so this is not a radio's serial number and the radio cannot be told apart from others."_s
                                     .arg(radio.address()));
    }

    void discoveryCutsTheRadiosTextsToWhatARadioHas()
    {
        RadioSim radio({u"--serial"_s, u"1121-1104-6700-2912"_s, u"--model"_s, QString(40, u'M'), u"--name"_s,
                        u"ShackWithAVeryLongName"_s, u"--callsign"_s, QString(100, u'K'), u"--version"_s, QString(70, u'9')});
        QVERIFY(radio.listening());
        const Run run = runVeldspar({u"--discover"_s, radio.address()});
        QVERIFY2(run.status == 0, qPrintable(run.output));
        const QJsonObject found = QJsonDocument::fromJson(run.lastLine().toUtf8()).object();
        QCOMPARE(found.value(u"serialNumber"_s).toString(), u"1121-1104-6700-2912"_s);
        QCOMPARE(found.value(u"name"_s).toString(), u"ShackWithAVeryL"_s);
        QCOMPARE(found.value(u"model"_s).toString(), QString(32, u'M'));
        QCOMPARE(found.value(u"callsign"_s).toString(), QString(32, u'K'));
        QCOMPARE(found.value(u"version"_s).toString(), QString(32, u'9'));
        // What it prints, the import takes.
        writeInPlace(path(u"discovered.json"_s),
                     QJsonDocument(QJsonObject{{u"radios"_s, QJsonArray{found}}}).toJson());
        const Run imported = runVeldspar({u"--config"_s, path(u"discovered/config.json"_s), u"--import"_s, path(u"discovered.json"_s)});
        QVERIFY2(imported.status == 0, qPrintable(imported.output));
    }

    void discoveryTakesTheVersionFromSmartSdrWhenInfoHasNone()
    {
        RadioSim radio({u"--no-software-ver"_s, u"--version"_s, u"3.9.1.100"_s});
        QVERIFY(radio.listening());
        const Run run = runVeldspar({u"--discover"_s, radio.address()});
        QCOMPARE(run.status, 0);
        const QJsonObject answer = QJsonDocument::fromJson(run.lastLine().toUtf8()).object();
        QCOMPARE(answer.value(u"version"_s).toString(), u"3.9.1.100"_s);
    }

    void discoveryUsesPort4992WhenNoneIsGiven()
    {
        // A loopback address of its own, so that port 4992 is free there.
        const QString host = u"127.42.%1.%2"_s.arg((getpid() >> 8) & 0xFF).arg((getpid() & 0xFF) | 1);
        RadioSim radio({u"--listen"_s, host, u"--port"_s, u"4992"_s, u"--serial"_s, u"A-4992"_s});
        QVERIFY2(radio.listening(), "port 4992 is taken on this loopback address");
        const Run run = runVeldspar({u"--discover"_s, host});
        QCOMPARE(run.status, 0);
        const QJsonObject answer = QJsonDocument::fromJson(run.lastLine().toUtf8()).object();
        QCOMPARE(answer.value(u"ipAddress"_s).toString(), host);
        QCOMPARE(answer.value(u"serialNumber"_s).toString(), u"A-4992"_s);
    }

    void discoveryAcceptsAHostName()
    {
        RadioSim radio({u"--serial"_s, u"H-1"_s});
        QVERIFY(radio.listening());
        const QString address = u"localhost:"_s + QString::number(radio.port());
        const Run run = runVeldspar({u"--discover"_s, address});
        QCOMPARE(run.status, 0);
        const QJsonObject answer = QJsonDocument::fromJson(run.lastLine().toUtf8()).object();
        QCOMPARE(answer.value(u"ipAddress"_s).toString(), address); // as given
        QCOMPARE(answer.value(u"serialNumber"_s).toString(), u"H-1"_s);
    }

    void discoveryWaitsForASlowRadioWithCrLfLines()
    {
        RadioSim radio({u"--fault"_s, u"slow"_s, u"--delay-ms"_s, u"150"_s, u"--crlf"_s, u"--serial"_s, u"S-1"_s});
        QVERIFY(radio.listening());
        const Run run = runVeldspar({u"--discover"_s, radio.address()});
        QCOMPARE(run.status, 0);
        QVERIFY(run.elapsedMs >= 900); // it did wait for the lines
        QCOMPARE(QJsonDocument::fromJson(run.lastLine().toUtf8()).object().value(u"serialNumber"_s).toString(), u"S-1"_s);
    }

    void discoveryFailuresAreExplained_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("expected");
        QTest::newRow("refused") << QString() << u"refused the connection"_s;
        QTest::newRow("closed at once") << u"close"_s << u"closed the connection before it sent the radio's details"_s;
        QTest::newRow("error code") << u"error"_s << u"answered \"info\" with error 0x50000016 (Command not permitted in this state)"_s;
        QTest::newRow("not a radio") << u"garbage"_s << u"but not as a FlexRadio does: this is not a radio"_s;
        QTest::newRow("no serial") << u"no-serial"_s << u"did not report its serial number"_s;
    }

    void discoveryFailuresAreExplained()
    {
        QFETCH(QString, fault);
        QFETCH(QString, expected);
        std::optional<RadioSim> radio;
        QString address = u"127.0.0.1:"_s + QString::number(closedPort());
        if (!fault.isEmpty()) {
            radio.emplace(QStringList{u"--fault"_s, fault});
            QVERIFY(radio->listening());
            address = radio->address();
        }
        const Run run = runVeldspar({u"--discover"_s, address});
        QCOMPARE(run.status, 1);
        QVERIFY2(run.lastLine().contains(expected), qPrintable(run.output));
        QVERIFY2(run.lastLine().contains(address), qPrintable(run.output));
        QVERIFY(!run.output.contains(u'{')); // no radio description at all
        QVERIFY(run.elapsedMs < 5000);
    }

    void discoveryRefusesAMalformedAddress()
    {
        const Run run = runVeldspar({u"--discover"_s, u"127.0.0.1:99999"_s});
        QCOMPARE(run.status, 2);
        QVERIFY2(run.output.contains(u"\"127.0.0.1:99999\" is not a radio address"_s), qPrintable(run.output));
    }

    // Addresses where the connection fails before it has even started: the failure comes
    // while the connection is being set up, and the probe must still end, at once.
    void discoveryEndsWhenTheConnectionFailsAtOnce_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("IPv6 loopback") << u"::1"_s;
        QTest::newRow("IPv4-mapped IPv6") << u"::ffff:127.0.0.1"_s;
        QTest::newRow("limited broadcast") << u"255.255.255.255"_s;
        QTest::newRow("multicast") << u"224.0.0.1"_s;
        QTest::newRow("multicast with port") << u"224.0.0.1:4992"_s;
    }

    void discoveryEndsWhenTheConnectionFailsAtOnce()
    {
        QFETCH(QString, address);
        // Far beyond both time-outs: a probe still running then is one that hangs.
        const Run run = runVeldspar({u"--discover"_s, address}, 20000);
        QVERIFY2(run.output != u"<did not finish>"_s, "the probe hangs");
        QVERIFY(!run.crashed);
        QVERIFY2(run.status == 1 || run.status == 2, qPrintable(run.output));
        QVERIFY2(run.elapsedMs < 5000, qPrintable(QString::number(run.elapsedMs))); // no time-out was needed
        QVERIFY2(run.lastLine().contains(address), qPrintable(run.output));
        QVERIFY(!run.output.contains(u'{'));
    }

    void discoveryEndsAtOnceWithoutAnyRoute()
    {
        // A network namespace of its own has no route at all, not even loopback.
        const Run probe = runProgram(u"unshare"_s, {u"-rn"_s, u"/bin/true"_s}, 10000);
        if (probe.status != 0)
            QSKIP(qPrintable(u"cannot make a network namespace without routes here (unshare -rn: %1)"_s.arg(probe.output.trimmed())));
        const Run run = runProgram(u"unshare"_s, {u"-rn"_s, serviceProgram, u"--discover"_s, u"10.99.0.1"_s}, 20000);
        QVERIFY2(run.output != u"<did not finish>"_s, "the probe hangs");
        QCOMPARE(run.status, 1);
        QVERIFY2(run.elapsedMs < 5000, qPrintable(QString::number(run.elapsedMs)));
        QVERIFY2(run.lastLine().startsWith(u"Cannot reach 10.99.0.1: "_s), qPrintable(run.output));
        QVERIFY2(run.lastLine().endsWith(u"Check that the VPN to the radio's network is connected and that the address is right."_s),
                 qPrintable(run.output));
    }

    // ---- options ----

    void numericOptionsOutOfRangeAreRefusedWithTheirRange_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("expected");
        const QString period = u"--check-period-ms needs a whole number of milliseconds from 100 to 60000; \"%1\" is not one."_s;
        const QString config = u"--config"_s;
        const QString file = u"/nonexistent/config.json"_s;
        for (const QString &value : {u"2000000000"_s, u"2147483648"_s, u"99999999999999999999"_s, u"60001"_s,
                                     u"99"_s, u"0"_s, u"-1"_s, u"1e3"_s, u"abc"_s, u""_s})
            QTest::addRow("--check-period-ms %s", qPrintable(value))
                << QStringList{config, file, u"--check-period-ms"_s, value} << period.arg(value);
        const QString broadcast = u"--broadcast needs an IPv4 address, optionally with \":PORT\" (PORT from 1 to 65535); "
                                  u"\"%1\" is not one."_s;
        for (const QString &value : {u"127.0.0.1:0"_s, u"127.0.0.1:65536"_s, u"127.0.0.1:4294967297"_s})
            QTest::addRow("--broadcast %s", qPrintable(value))
                << QStringList{config, file, u"--broadcast"_s, value} << broadcast.arg(value);
        for (const QString &value : {u"127.0.0.1:0"_s, u"127.0.0.1:65536"_s, u"127.0.0.1:4294967297"_s})
            QTest::addRow("--discover %s", qPrintable(value))
                << QStringList{u"--discover"_s, value}
                << u"\"%1\" is not a radio address: give an IPv4 address or host name, optionally followed by \":\" "
                   u"and a port from 1 to 65535."_s.arg(value);
    }

    void numericOptionsOutOfRangeAreRefusedWithTheirRange()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, expected);
        // A service that accepted the value would run on: that must fail the test, not hang it.
        const Run run = runVeldspar(arguments, 10000);
        QVERIFY2(run.output != u"<did not finish>"_s, "the value was accepted and the service runs");
        QCOMPARE(run.status, 2);
        QVERIFY2(run.lines().contains(expected), qPrintable(run.output));
    }

    void theLimitsOfTheCheckPeriodAreAccepted_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("shortest") << u"100"_s;
        QTest::newRow("longest") << u"60000"_s;
    }

    void theLimitsOfTheCheckPeriodAreAccepted()
    {
        QFETCH(QString, value);
        RadioSim radio({u"--serial"_s, u"P-"_s + value});
        QVERIFY(radio.listening());
        const QString config = path(u"period-%1/config.json"_s.arg(value));
        writeInPlace(config, configuration({radioEntry(radio.address(), u"P-"_s + value)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        QProcess service;
        service.setProgram(serviceProgram);
        service.setArguments({u"--config"_s, config, u"--broadcast"_s, listener.destination(), u"--check-period-ms"_s, value});
        service.start();
        QVERIFY(service.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"P-"_s + value).isEmpty(), 5000);
        service.kill();
        service.waitForFinished();
    }

    // ---- --config --import ----

    void importWritesTheFileExactlyAndBacksUpThePreviousOne()
    {
        const QString config = path(u"import-exact/config.json"_s);
        const QByteArray previous = configuration({radioEntry(u"10.0.0.1"_s, u"A-1"_s)}, 3000);
        writeInPlace(config, previous);
        // Unusual spacing, an unknown key, unknown radio keys: all kept, byte for byte.
        const QByteArray next = "{\"radios\":[{\"ipAddress\":\"10.0.0.2:4993\",\"serialNumber\":\"\",\"colour\":\"red\"}],"
                                "   \"broadcastIntervalMs\" : 60000, \"note\": [1, 2]}";
        writeInPlace(path(u"import-exact.json"_s), next);
        const QDateTime before = QDateTime::currentDateTimeUtc().addMSecs(-1);
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-exact.json"_s)});
        QCOMPARE(run.status, 0);
        QVERIFY(run.lines().size() <= 1);
        QCOMPARE(readFile(config), next);

        const QStringList backups = backupsBeside(config);
        QCOMPARE(backups.size(), 1);
        QVERIFY2(backupName.match(backups.first()).hasMatch(), qPrintable(backups.first()));
        const QDateTime stamp = QDateTime::fromString(backups.first().mid(7, 23), u"yyyy-MM-dd'T'HH-mm-ss.zzz"_s);
        QVERIFY(QDateTime(stamp.date(), stamp.time(), Qt::UTC) >= before);
        QVERIFY(QDateTime(stamp.date(), stamp.time(), Qt::UTC) <= QDateTime::currentDateTimeUtc());
        QCOMPARE(readFile(QFileInfo(config).path() + u"/backups/"_s + backups.first()), previous);
        // No temporary file is left beside it.
        QCOMPARE(QDir(QFileInfo(config).path()).entryList(QDir::Files | QDir::Hidden), QStringList{u"config.json"_s});
    }

    void importCreatesTheFolderAndMakesNoBackupOfNothing()
    {
        const QString config = path(u"import-first/deeper/config.json"_s);
        const QByteArray bytes = configuration({}, 3000);
        writeInPlace(path(u"import-first.json"_s), bytes);
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-first.json"_s)});
        QCOMPARE(run.status, 0);
        QCOMPARE(readFile(config), bytes);
        QVERIFY(backupsBeside(config).isEmpty());
    }

    void importRefusesWhatTheServiceCannotUse_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("message");
        const QByteArray good = R"({"ipAddress": "10.0.0.1", "serialNumber": "A-1"})";
        QTest::newRow("not JSON") << QByteArray("{\"radios\": [") << u"The configuration is not valid JSON: "_s;
        QTest::newRow("empty") << QByteArray("\n") << u"The configuration is empty."_s;
        QTest::newRow("a list") << QByteArray("[]") << u"The configuration must be a JSON object with a \"radios\" list."_s;
        QTest::newRow("no radios") << QByteArray("{\"broadcastIntervalMs\": 3000}") << u"The configuration has no \"radios\" list."_s;
        QTest::newRow("radios not a list") << QByteArray("{\"radios\": {}}") << u"\"radios\" must be a list of radios; it is {}."_s;
        QTest::newRow("radio not an object") << "{\"radios\": [" + good + ", \"10.0.0.2\"]}"
                                             << u"Radio 2 is not a JSON object; it is \"10.0.0.2\"."_s;
        QTest::newRow("no address") << "{\"radios\": [" + good + ", {\"serialNumber\": \"B\"}]}" << u"Radio 2 has no IP address."_s;
        QTest::newRow("empty address") << QByteArray(R"({"radios": [{"ipAddress": "", "serialNumber": "B"}]})")
                                       << u"Radio 1 has no IP address."_s;
        QTest::newRow("address a number") << QByteArray(R"({"radios": [{"ipAddress": 10, "serialNumber": "B"}]})")
                                          << u"Radio 1 has an IP address that is not text: 10."_s;
        QTest::newRow("address with a bad port") << QByteArray(R"({"radios": [{"ipAddress": "10.0.0.1:0", "serialNumber": "B"}]})")
                                                 << u"Radio 1 has an IP address that cannot be used: \"10.0.0.1:0\"."_s;
        QTest::newRow("no serial") << "{\"radios\": [" + good + ", " + good + ", {\"ipAddress\": \"10.0.0.3\"}]}"
                                   << u"Radio 3 (10.0.0.3) has no serial number."_s;
        QTest::newRow("serial a number") << QByteArray(R"({"radios": [{"ipAddress": "10.0.0.3", "serialNumber": 7}]})")
                                         << u"Radio 1 (10.0.0.3) has a serial number that is not text: 7."_s;
        // Texts longer than a radio's, as a hostile radio's answer once put them in a configuration.
        const auto withText = [](const char *key, qsizetype length) {
            return QJsonDocument(QJsonObject{{u"radios"_s, QJsonArray{QJsonObject{{u"ipAddress"_s, u"10.0.0.4"_s},
                                                                                  {u"serialNumber"_s, u"B"_s},
                                                                                  {QString::fromLatin1(key), QString(length, u'x')}}}}})
                .toJson();
        };
        QTest::newRow("name of 70000 characters") << withText("name", 70000)
                                                  << u"Radio 1 (10.0.0.4) has a name of 70000 characters; a radio's name has at most 15."_s;
        QTest::newRow("name of 16 characters") << withText("name", 16)
                                               << u"Radio 1 (10.0.0.4) has a name of 16 characters; a radio's name has at most 15."_s;
        QTest::newRow("serial of 1119 characters")
            << QJsonDocument(QJsonObject{{u"radios"_s, QJsonArray{QJsonObject{{u"ipAddress"_s, u"10.0.0.4"_s},
                                                                              {u"serialNumber"_s, QString(1119, u'7')}}}}})
                   .toJson()
            << u"Radio 1 (10.0.0.4) has a serial number of 1119 characters; a radio's serial number has at most 32."_s;
        QTest::newRow("model of 33 characters") << withText("model", 33)
                                                << u"Radio 1 (10.0.0.4) has a model of 33 characters; a radio's model has at most 32."_s;
        QTest::newRow("callsign of 33 characters")
            << withText("callsign", 33) << u"Radio 1 (10.0.0.4) has a callsign of 33 characters; a radio's callsign has at most 32."_s;
        QTest::newRow("version of 33 characters")
            << withText("version", 33) << u"Radio 1 (10.0.0.4) has a version of 33 characters; a radio's version has at most 32."_s;
        QTest::newRow("address of 260 characters")
            << QByteArray(R"({"radios": [{"ipAddress": ")" + QByteArray(255, 'h') + R"(:4992", "serialNumber": "B"}]})")
            << u"Radio 1 has an IP address of 260 characters; an address has at most 259."_s;
        const QString interval = u"\"broadcastIntervalMs\" must be a whole number of milliseconds from 250 to 60000; it is %1."_s;
        QTest::newRow("interval too short") << QByteArray(R"({"broadcastIntervalMs": 249, "radios": []})") << interval.arg(249);
        QTest::newRow("interval too long") << QByteArray(R"({"broadcastIntervalMs": 60001, "radios": []})") << interval.arg(60001);
        QTest::newRow("interval a fraction") << QByteArray(R"({"broadcastIntervalMs": 3000.5, "radios": []})") << interval.arg(3000.5);
        QTest::newRow("interval text") << QByteArray(R"({"broadcastIntervalMs": "3000", "radios": []})") << interval.arg(u"\"3000\""_s);
    }

    void importRefusesWhatTheServiceCannotUse()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, message);
        const QString config = path(u"import-refused/config.json"_s);
        const QByteArray previous = configuration({radioEntry(u"10.0.0.1"_s, u"A-1"_s)}, 3000);
        writeInPlace(config, previous);
        writeInPlace(path(u"import-refused.json"_s), bytes);
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-refused.json"_s)});
        QCOMPARE(run.status, 1);
        QCOMPARE(run.lines().size(), 1);
        QVERIFY2(run.lines().first().startsWith(message), qPrintable(run.output));
        QCOMPARE(readFile(config), previous);
        QVERIFY(backupsBeside(config).isEmpty());
    }

    void importAcceptsTextsAsLongAsARadios()
    {
        const QString config = path(u"import-longest/config.json"_s);
        const QByteArray bytes = QJsonDocument(QJsonObject{{u"radios"_s, QJsonArray{QJsonObject{
            {u"ipAddress"_s, QString(253, u'h') + u":4992"_s}, {u"serialNumber"_s, QString(32, u'7')},
            {u"name"_s, QString(15, u'n')}, {u"model"_s, QString(32, u'm')}, {u"callsign"_s, QString(32, u'c')},
            {u"version"_s, QString(32, u'9')}}}}}).toJson();
        writeInPlace(path(u"import-longest.json"_s), bytes);
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-longest.json"_s)});
        QVERIFY2(run.status == 0, qPrintable(run.output));
        QCOMPARE(readFile(config), bytes);
    }

    void importAcceptsTheIntervalLimitsAndNoInterval_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("250") << QByteArray(R"({"broadcastIntervalMs": 250, "radios": []})");
        QTest::newRow("60000") << QByteArray(R"({"broadcastIntervalMs": 60000, "radios": []})");
        QTest::newRow("none, placeholder serial, disabled")
            << QByteArray(R"({"radios": [{"ipAddress": "radio.example:4992", "serialNumber": "0000-0000-0000-0000", "enabled": "no"}]})");
    }

    void importAcceptsTheIntervalLimitsAndNoInterval()
    {
        QFETCH(QByteArray, bytes);
        const QString config = path(u"import-limits/config.json"_s);
        writeInPlace(path(u"import-limits.json"_s), bytes);
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-limits.json"_s)});
        QCOMPARE(run.status, 0);
        QCOMPARE(readFile(config), bytes);
    }

    void importOfAMissingFileSaysSo()
    {
        const QString config = path(u"import-missing/config.json"_s);
        writeInPlace(config, "{\"radios\": []}");
        const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"no-such-file.json"_s)});
        QCOMPARE(run.status, 1);
        QCOMPARE(run.lastLine(), u"Cannot read %1: No such file or directory."_s.arg(path(u"no-such-file.json"_s)));
        QCOMPARE(readFile(config), QByteArray("{\"radios\": []}"));
    }

    void importKeepsTheNewestTwentyBackupsAndTheOldest()
    {
        const QString config = path(u"import-rotation/config.json"_s);
        const QString file = path(u"import-rotation.json"_s);
        const auto version = [](int n) { return configuration({radioEntry(u"10.0.0.%1"_s.arg(n), u"S-%1"_s.arg(n))}, 3000); };
        // 25 imports: the first has nothing to back up, the other 24 each back up the one before.
        // Within one day (unless midnight comes in between), the newest twenty and the oldest stay.
        for (int n = 1; n <= 25; ++n) {
            writeInPlace(file, version(n));
            const Run run = runVeldspar({u"--config"_s, config, u"--import"_s, file});
            QCOMPARE(run.status, 0);
            const QStringList backups = backupsBeside(config);
            if (backups.isEmpty() || backups.first().left(17) == backups.last().left(17))
                QCOMPARE(backups.size(), std::min(n - 1, 21));
        }
        QCOMPARE(readFile(config), version(25));
        const QStringList backups = backupsBeside(config);
        const auto backupBytes = [&](const QString &name) { return readFile(QFileInfo(config).path() + u"/backups/"_s + name); };
        // Version 1, the oldest, stays; versions 2 to 4 are gone; versions 5 to 24 remain, oldest name first.
        QCOMPARE(backupBytes(backups.first()), version(1));
        const QStringList newest = backups.mid(backups.size() - 20);
        for (int i = 0; i < newest.size(); ++i)
            QCOMPARE(backupBytes(newest.at(i)), version(i + 5));
        if (backups.first().left(17) == backups.last().left(17))
            QCOMPARE(backups.size(), 21);
    }

    void importIntoAReadOnlyFolderFailsAndChangesNothing()
    {
        const QString folder = path(u"import-readonly"_s);
        const QString config = folder + u"/config.json"_s;
        const QByteArray previous = configuration({radioEntry(u"10.0.0.1"_s, u"A-1"_s)}, 3000);
        writeInPlace(config, previous);
        writeInPlace(path(u"import-readonly.json"_s), configuration({}, 3000));
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup));
        const Run refused = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-readonly.json"_s)}, 30000,
                                        withoutRootPowers);
        QCOMPARE(refused.status, 1);
        QCOMPARE(refused.lines().size(), 1);
        QVERIFY2(refused.lastLine().contains(u"Cannot back up the current configuration"_s), qPrintable(refused.output));
        QCOMPARE(readFile(config), previous);

        // With a writable backups folder the backup is made, but the file still cannot be replaced.
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(QDir(folder).mkdir(u"backups"_s));
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner));
        const Run failed = runVeldspar({u"--config"_s, config, u"--import"_s, path(u"import-readonly.json"_s)}, 30000,
                                       withoutRootPowers);
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QCOMPARE(failed.status, 1);
        QCOMPARE(failed.lastLine(), u"Cannot write %1: Permission denied."_s.arg(config));
        QCOMPARE(readFile(config), previous);
        QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList{u"config.json"_s});
    }

    // ---- the service ----

    void beaconsDescribeTheRadioAndGoToEveryDestination()
    {
        RadioSim radio({u"--serial"_s, u"1121-1104-6700-2912"_s, u"--model"_s, u"FLEX-6600"_s, u"--name"_s,
                        u"Remote Shack"_s, u"--callsign"_s, u"W1AW"_s, u"--version"_s, u"3.3.32.8203"_s});
        // Known by a host name, and configured with a placeholder serial and an old name.
        RadioSim named({u"--serial"_s, u"0421-1300-8600-1234"_s, u"--name"_s, u"Attic"_s, u"--model"_s, u"FLEX-8600"_s});
        QVERIFY(radio.listening() && named.listening());
        const QString config = path(u"beacons/config.json"_s);
        QJsonObject second = radioEntry(u"localhost:"_s + QString::number(named.port()), placeholderSerial);
        second.insert(u"name"_s, u"OldName"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"1121-1104-6700-2912"_s), second}, 300));

        QElapsedTimer clock;
        clock.start();
        BeaconListener first(clock);
        BeaconListener other(clock);
        RunningService service(config, {first.destination(), other.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(first.from(u"1121-1104-6700-2912"_s).size() >= 3, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(first.from(u"0421-1300-8600-1234"_s).size() >= 3, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(other.from(u"1121-1104-6700-2912"_s).size() >= 3, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(other.from(u"0421-1300-8600-1234"_s).size() >= 3, 5000);

        const QByteArray datagram = first.datagrams().first();
        const Beacon beacon = first.from(u"1121-1104-6700-2912"_s).first().beacon;
        QCOMPARE(beacon.packetType, 3u);    // extension data with stream id
        QVERIFY(beacon.classIdPresent);
        QVERIFY(!beacon.trailerPresent);
        QCOMPARE(beacon.tsi, 1u);           // UTC, as radios send it
        QVERIFY(beacon.tsf != 0);           // so words 5 and 6 are the fractional timestamp
        QCOMPARE(beacon.datagramSize % 4, 0);
        QCOMPARE(qsizetype(beacon.sizeWords) * 4, beacon.datagramSize);
        QCOMPARE(datagram.size() % 4, 0);
        QCOMPARE(beacon.streamId, 0x800u);
        QCOMPARE(beacon.oui, 0x1C2Du);
        QCOMPARE(beacon.informationClass, 0x534Cu);
        QCOMPARE(beacon.packetClass, 0xFFFFu);
        QVERIFY(qAbs(qint64(beacon.integerTimestamp) - QDateTime::currentSecsSinceEpoch()) <= 5);
        QCOMPARE(beacon.fractionalTimestamp, 0u);
        QVERIFY(beacon.padding.size() < 4);
        QCOMPARE(beacon.padding, QByteArray(beacon.padding.size(), '\0'));
        QVERIFY(!beacon.payload.contains(" Shack")); // the space inside a value is 0x7F
        QVERIFY(beacon.payload.contains("nickname=Remote\x7fShack"));
        QCOMPARE(beacon.keys().mid(0, 9), QStringList({u"discovery_protocol_version"_s, u"model"_s, u"serial"_s,
                                                       u"version"_s, u"nickname"_s, u"callsign"_s, u"ip"_s, u"port"_s,
                                                       u"status"_s}));
        QCOMPARE(beacon.value(u"discovery_protocol_version"_s), u"3.0.0.1"_s);
        QCOMPARE(beacon.value(u"model"_s), u"FLEX-6600"_s);
        QCOMPARE(beacon.value(u"version"_s), u"3.3.32.8203"_s);
        QCOMPARE(beacon.value(u"nickname"_s), u"Remote Shack"_s);
        QCOMPARE(beacon.value(u"callsign"_s), u"W1AW"_s);
        QCOMPARE(beacon.value(u"ip"_s), u"127.0.0.1"_s);
        QCOMPARE(beacon.value(u"port"_s), QString::number(radio.port()));
        QCOMPARE(beacon.value(u"status"_s), u"Available"_s);

        // The radio known by name: its real address, the serial and name it reports.
        const Beacon byName = first.from(u"0421-1300-8600-1234"_s).first().beacon;
        QCOMPARE(byName.value(u"ip"_s), u"127.0.0.1"_s);
        QCOMPARE(byName.value(u"port"_s), QString::number(named.port()));
        QCOMPARE(byName.value(u"nickname"_s), u"Attic"_s);
        QCOMPARE(byName.value(u"model"_s), u"FLEX-8600"_s);

        // Both destinations got the same beacons; the log has events, not a line per beacon.
        const QStringList log = service.log().split(u'\n', Qt::SkipEmptyParts);
        QVERIFY2(log.size() <= 6, qPrintable(service.log()));
        QVERIFY(service.log().contains(u"Radio Remote Shack at %1 answers"_s.arg(radio.address())));
        QTest::qWait(700);
        QCOMPARE(service.log().split(u'\n', Qt::SkipEmptyParts), log);
    }

    void beaconsKeepTheIntervalAndCountPackets()
    {
        RadioSim radio({u"--serial"_s, u"I-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"interval/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"I-1"_s)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"I-1"_s).size() >= 19, 10000);
        const QList<Received> beacons = listener.from(u"I-1"_s);
        for (qsizetype i = 1; i < beacons.size(); ++i) {
            const qint64 gap = beacons.at(i).atMs - beacons.at(i - 1).atMs;
            QVERIFY2(gap >= 225 && gap <= 275, qPrintable(u"gap %1: %2 ms"_s.arg(i).arg(gap)));
            QCOMPARE(beacons.at(i).beacon.packetCount, (beacons.at(i - 1).beacon.packetCount + 1) % 16);
        }
    }

    void disabledRadiosAreNeverAnnounced()
    {
        RadioSim enabled({u"--serial"_s, u"E-1"_s});
        RadioSim disabled({u"--serial"_s, u"D-1"_s});
        RadioSim notQuite({u"--serial"_s, u"D-2"_s});
        QVERIFY(enabled.listening() && disabled.listening() && notQuite.listening());
        const QString config = path(u"disabled/config.json"_s);
        writeInPlace(config, configuration({radioEntry(enabled.address(), u"E-1"_s),
                                            radioEntry(disabled.address(), u"D-1"_s, false),
                                            radioEntry(notQuite.address(), u"D-2"_s, u"true"_s)},
                                           250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"E-1"_s).size() >= 6, 5000);
        QCOMPARE(listener.all().size(), listener.from(u"E-1"_s).size());
        QCOMPARE(enabled.connections(), 1); // one connection, held
        QCOMPARE(disabled.connections(), 0);
        QCOMPARE(notQuite.connections(), 0);
    }

    void radiosThatDoNotAnswerAreNotAnnounced()
    {
        RadioSim answering({u"--serial"_s, u"U-1"_s});
        RadioSim silent({u"--serial"_s, u"U-2"_s, u"--fault"_s, u"silent"_s});
        QVERIFY(answering.listening() && silent.listening());
        const QString refusing = u"127.0.0.1:"_s + QString::number(closedPort());
        const QString config = path(u"unreachable/config.json"_s);
        writeInPlace(config, configuration({radioEntry(answering.address(), u"U-1"_s), radioEntry(silent.address(), u"U-2"_s),
                                            radioEntry(refusing, u"U-3"_s)},
                                           250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"U-1"_s).size() >= 3, 5000);

        // The radio goes away: its held connection closes, and its beacons stop.
        answering.stop();
        const qint64 gone = clock.elapsed();
        const QString stopped = u"at %1: it stopped answering (it closed the connection); no longer announced."_s.arg(
            answering.address());
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(stopped), 5000);
        const qint64 noticed = clock.elapsed();
        QVERIFY2(noticed - gone <= 5000, qPrintable(u"noticed after %1 ms"_s.arg(noticed - gone)));
        QTest::qWait(1000);
        QVERIFY(listener.from(u"U-1"_s, noticed + 100).isEmpty());
        QVERIFY(listener.from(u"U-2"_s).isEmpty());
        QVERIFY(listener.from(u"U-3"_s).isEmpty());
        // A radio that accepts the connection but never greets is given up on after five seconds.
        QTRY_VERIFY_WITH_TIMEOUT(
            service.log().contains(u"The radio at %1 does not answer (no answer to \"info\")"_s.arg(silent.address())), 7000);
        QVERIFY(service.log().contains(u"The radio at %1 does not answer (connection refused)"_s.arg(refusing)));
    }

    // A radio that keeps failing: one line when it starts, one for each reason not seen before
    // in the same spell, one when it answers again, each with the count; none per retry.
    void aRadioThatKeepsFailingIsLoggedOncePerSpellAndReason()
    {
        const quint16 port = closedPort();
        const QString address = u"127.0.0.1:"_s + QString::number(port);
        const QString config = path(u"failing/config.json"_s);
        writeInPlace(config, configuration({radioEntry(address, u"FL-1"_s)}, 500));
        RunningService service(config, {u"127.0.0.1:9"_s});
        const QString refused = u"The radio at %1 does not answer (connection refused); it is not announced until it does."_s.arg(address);
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(refused), 3000);
        // Tried again after 1, 2 and 4 seconds meanwhile.
        QTest::qWait(7500);
        QCOMPARE(linesWith(service.log(), address), QStringList{refused});

        // Now it takes the connection but never greets: a new reason, said once with the count.
        std::optional<RadioSim> radio(std::in_place, QStringList{u"--serial"_s, u"FL-1"_s, u"--name"_s, u"Shack"_s,
                                                                 u"--port"_s, QString::number(port), u"--fault"_s, u"silent"_s});
        QVERIFY(radio->listening());
        const QRegularExpression changed(u"^The radio at %1 still does not answer, now \\(no answer to \"info\"\\), "
                                         u"after (\\d+) failed attempts over (\\d+) seconds\\.$"_s.arg(QRegularExpression::escape(address)),
                                         QRegularExpression::MultilineOption);
        QTRY_VERIFY_WITH_TIMEOUT(changed.match(service.log()).hasMatch(), 15000);
        const QRegularExpressionMatch change = changed.match(service.log());
        QVERIFY2(change.captured(1).toInt() >= 5, qPrintable(service.log()));
        QVERIFY2(change.captured(2).toInt() >= 10, qPrintable(service.log()));

        // It answers, at the next attempt a few seconds on: one line with every failed attempt of
        // the spell. (Replaced at once, before the service connects again: a radio that closes
        // a connection would be another reason.)
        radio.reset();
        radio.emplace(QStringList{u"--serial"_s, u"FL-1"_s, u"--name"_s, u"Shack"_s, u"--port"_s, QString::number(port)});
        QVERIFY(radio->listening());
        const QRegularExpression answered(u"^Radio Shack at %1 answers again after (\\d+) failed attempts over (\\d+) "
                                          u"seconds; announcing it every 500 ms\\.$"_s.arg(QRegularExpression::escape(address)),
                                          QRegularExpression::MultilineOption);
        QTRY_VERIFY_WITH_TIMEOUT(answered.match(service.log()).hasMatch(), 15000);
        const QRegularExpressionMatch end = answered.match(service.log());
        QVERIFY2(end.captured(1).toInt() >= change.captured(1).toInt(), qPrintable(service.log()));
        const QStringList lines = linesWith(service.log(), address);
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.at(0), refused);
        QVERIFY(changed.match(lines.at(1)).hasMatch());
        QVERIFY(answered.match(lines.at(2)).hasMatch());
    }

    // A radio that answers and drops soon after, again and again: not two lines per reconnect,
    // and one line once a connection holds.
    void aRadioThatKeepsDroppingIsNotLoggedAtEachReconnect()
    {
        std::optional<RadioSim> radio(std::in_place, QStringList{u"--serial"_s, u"FD-2"_s, u"--name"_s, u"Shack"_s});
        QVERIFY(radio->listening());
        const quint16 port = radio->port();
        const QString address = radio->address();
        const QString config = path(u"dropping/config.json"_s);
        writeInPlace(config, configuration({radioEntry(address, u"FD-2"_s)}, 500));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        constexpr int drops = 3;
        for (int drop = 0; drop < drops; ++drop) {
            const qint64 since = clock.elapsed();
            QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"FD-2"_s, since).isEmpty(), 10000);
            // Killed and back at once, before the service tries again.
            radio.emplace(QStringList{u"--serial"_s, u"FD-2"_s, u"--name"_s, u"Shack"_s, u"--port"_s, QString::number(port)});
            QVERIFY(radio->listening());
        }
        const QRegularExpression held(u"^Radio Shack at %1 has held its connection for 10 seconds, after %2 failed attempts "
                                      u"over (\\d+) seconds; announcing it every 500 ms\\.$"_s.arg(QRegularExpression::escape(address))
                                          .arg(drops),
                                      QRegularExpression::MultilineOption);
        QTRY_VERIFY_WITH_TIMEOUT(held.match(service.log()).hasMatch(), 20000);
        const QStringList lines = linesWith(service.log(), address);
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.at(0), u"Radio Shack at %1 answers; announcing it every 500 ms."_s.arg(address));
        QCOMPARE(lines.at(1), u"Radio Shack at %1: it stopped answering (it closed the connection); no longer announced. It "
                              u"answered for less than 10 seconds: its drops are counted, not logged, until a connection "
                              u"holds that long."_s.arg(address));
        QVERIFY(held.match(lines.at(2)).hasMatch());
    }

    // ---- the radio as it is right now ----

    void beaconsCarryEveryKeyOfARealRadioInItsOrder()
    {
        RadioSim radio({u"--serial"_s, u"0621-1104-6601-1641"_s, u"--model"_s, u"FLEX-6600"_s, u"--name"_s,
                        u"Shack 6600"_s, u"--callsign"_s, u"N0CALL"_s, u"--version"_s, u"3.2.39.3374"_s, u"--mac"_s,
                        u"00:1C:2D:05:1A:68"_s, u"--wan"_s, u"1"_s, u"--gui-client"_s,
                        u"SmartSDR-Win,OFFICE WIN,0x7022E1CF"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"all-keys/config.json"_s);
        // An "M" radio: its "info" says FLEX-6600, its beacon FLEX-6600M, kept in the configuration.
        QJsonObject entry = radioEntry(radio.address(), u"0621-1104-6601-1641"_s);
        entry.insert(u"model"_s, u"FLEX-6600M"_s);
        writeInPlace(config, configuration({entry}, 3000));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"0621-1104-6601-1641"_s).isEmpty(), 5000);

        const Beacon beacon = listener.from(u"0621-1104-6601-1641"_s).first().beacon;
        QCOMPARE(beacon.keys(), realBeaconKeys);
        QCOMPARE(valuesOf(beacon, realBeaconKeys),
                 valuesOf(beaconWith({{u"discovery_protocol_version"_s, u"3.0.0.1"_s},
                                            {u"model"_s, u"FLEX-6600M"_s},
                                            {u"serial"_s, u"0621-1104-6601-1641"_s},
                                            {u"version"_s, u"3.2.39.3374"_s},
                                            {u"nickname"_s, u"Shack 6600"_s},
                                            {u"callsign"_s, u"N0CALL"_s},
                                            {u"ip"_s, u"127.0.0.1"_s},
                                            {u"port"_s, QString::number(radio.port())},
                                            {u"status"_s, u"Available"_s},
                                            {u"inuse_ip"_s, QString()},
                                            {u"inuse_host"_s, QString()},
                                            {u"max_licensed_version"_s, u"v3"_s},
                                            {u"radio_license_id"_s, u"00-1C-2D-05-1A-68"_s},
                                            {u"requires_additional_license"_s, u"0"_s},
                                            {u"fpc_mac"_s, QString()},
                                            {u"wan_connected"_s, u"1"_s},
                                            {u"licensed_clients"_s, u"2"_s},
                                            {u"available_clients"_s, u"1"_s},
                                            {u"max_panadapters"_s, u"4"_s},
                                            {u"available_panadapters"_s, u"3"_s},
                                            {u"max_slices"_s, u"4"_s},
                                            {u"available_slices"_s, u"3"_s},
                                            {u"gui_client_ips"_s, QString()},
                                            {u"gui_client_hosts"_s, QString()},
                                            {u"gui_client_programs"_s, u"SmartSDR-Win"_s},
                                            {u"gui_client_stations"_s, u"OFFICE WIN"_s},
                                            {u"gui_client_handles"_s, u"0x7022E1CF"_s}}),
                          realBeaconKeys));
        // Spaces inside values travel as 0x7F, as the radio sends them.
        QVERIFY(beacon.payload.contains("nickname=Shack\x7f" "6600 "));
        QVERIFY(beacon.payload.contains("gui_client_stations=OFFICE\x7fWIN "));
        QVERIFY(beacon.payload.startsWith("discovery_protocol_version="));
        // Held, not reopened: one connection however many beacons.
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"0621-1104-6601-1641"_s).size() >= 3, 6000);
        QCOMPARE(radio.connections(), 1);
    }

    void theRadiosOwnIdentityWinsOverAStaleConfiguration()
    {
        RadioSim radio({u"--serial"_s, u"0621-1104-6601-1641"_s, u"--model"_s, u"FLEX-6600"_s, u"--version"_s,
                        u"3.4.1.100"_s, u"--name"_s, u"Live"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"stale/config.json"_s);
        QJsonObject entry = radioEntry(radio.address(), u"9999-0000-0000-0001"_s);
        entry.insert(u"version"_s, u"3.2.39.3374"_s); // before the radio's last update
        entry.insert(u"model"_s, u"FLEX-6400"_s);     // not the radio's model plus a suffix
        entry.insert(u"name"_s, u"Old"_s);
        writeInPlace(config, configuration({entry}, 3000));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.all().isEmpty(), 5000);
        const Beacon beacon = listener.all().first().beacon;
        QCOMPARE(beacon.value(u"version"_s), u"3.4.1.100"_s);
        QCOMPARE(beacon.value(u"serial"_s), u"0621-1104-6601-1641"_s);
        QCOMPARE(beacon.value(u"model"_s), u"FLEX-6600"_s);
        QCOMPARE(beacon.value(u"nickname"_s), u"Live"_s);
        QCOMPARE(beacon.value(u"max_licensed_version"_s), u"v3"_s);
        QVERIFY2(service.log().contains(u"Radio Live at %1 reports the serial number 0621-1104-6601-1641, but the "
                                        u"configuration says 9999-0000-0000-0001; announcing the radio's own."_s.arg(
                                            radio.address())),
                 qPrintable(service.log()));
    }

    void aGuiClientJoiningOrLeavingShowsInTheNextBeacon()
    {
        RadioSim radio({u"--serial"_s, u"G-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"clients/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"G-1"_s)}, 3000));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"G-1"_s).isEmpty(), 5000);
        const QStringList keys{u"status"_s, u"available_clients"_s, u"available_slices"_s, u"available_panadapters"_s,
                               u"gui_client_programs"_s, u"gui_client_stations"_s, u"gui_client_handles"_s};
        QCOMPARE(valuesOf(listener.from(u"G-1"_s).first().beacon, keys),
                 u"status=Available | available_clients=2 | available_slices=4 | available_panadapters=4 | "
                 u"gui_client_programs= | gui_client_stations= | gui_client_handles="_s);

        // The next beacon after each change, at most one beat (2 s) later, shows it.
        const auto nextAfter = [&](const QByteArray &command, const QByteArray &printed) -> std::optional<Beacon> {
            radio.tell(command);
            if (!radio.printed(printed))
                return std::nullopt;
            const qint64 changed = clock.elapsed() + 100;
            if (!QTest::qWaitFor([&] { return !listener.from(u"G-1"_s, changed).isEmpty(); }, 2600))
                return std::nullopt;
            return listener.from(u"G-1"_s, changed).first().beacon;
        };
        std::optional<Beacon> next = nextAfter("join-handle 0x7022E1CF SmartSDR-Win OFFICE-WIN", "gui client 0x7022E1CF joined");
        QVERIFY(next);
        QCOMPARE(valuesOf(*next, keys),
                 u"status=Available | available_clients=1 | available_slices=3 | available_panadapters=3 | "
                 u"gui_client_programs=SmartSDR-Win | gui_client_stations=OFFICE-WIN | gui_client_handles=0x7022E1CF"_s);

        next = nextAfter("join-handle 0x7C88FB0C SmartSDR-M Maestro", "gui client 0x7C88FB0C joined");
        QVERIFY(next);
        QCOMPARE(valuesOf(*next, keys),
                 u"status=In_Use | available_clients=0 | available_slices=2 | available_panadapters=2 | "
                 u"gui_client_programs=SmartSDR-Win,SmartSDR-M | gui_client_stations=OFFICE-WIN,Maestro | "
                 u"gui_client_handles=0x7022E1CF,0x7C88FB0C"_s);

        next = nextAfter("leave 0x7022E1CF", "gui client 0x7022E1CF left");
        QVERIFY(next);
        QCOMPARE(valuesOf(*next, keys),
                 u"status=Available | available_clients=1 | available_slices=3 | available_panadapters=3 | "
                 u"gui_client_programs=SmartSDR-M | gui_client_stations=Maestro | gui_client_handles=0x7C88FB0C"_s);
    }

    void beaconsAreAtMostTwoSecondsApartWhateverTheInterval()
    {
        RadioSim radio({u"--serial"_s, u"B-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"beat/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"B-1"_s)}, 60000));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"B-1"_s).size() >= 4, 10000);
        const QList<Received> beacons = listener.from(u"B-1"_s);
        for (qsizetype i = 1; i < beacons.size(); ++i) {
            const qint64 gap = beacons.at(i).atMs - beacons.at(i - 1).atMs;
            QVERIFY2(gap >= 1800 && gap <= 2200, qPrintable(u"gap %1: %2 ms"_s.arg(i).arg(gap)));
        }
        QVERIFY(service.log().contains(u"beacons every 2000 ms."_s));
    }

    void aKilledRadioStopsBeingAnnouncedWithinFiveSecondsAndComesBack()
    {
        std::optional<RadioSim> radio(std::in_place, QStringList{u"--serial"_s, u"L-1"_s});
        QVERIFY(radio->listening());
        const quint16 port = radio->port();
        const QString config = path(u"killed/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio->address(), u"L-1"_s)}, 1000));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"L-1"_s).size() >= 2, 5000);

        radio.reset();
        const qint64 killed = clock.elapsed();
        QTest::qWait(6000);
        const QList<Received> after = listener.from(u"L-1"_s, killed);
        const qint64 lastAfter = after.isEmpty() ? 0 : after.last().atMs - killed;
        QVERIFY2(lastAfter <= 5000, qPrintable(u"last beacon %1 ms after the radio was killed"_s.arg(lastAfter)));

        radio.emplace(QStringList{u"--serial"_s, u"L-1"_s, u"--port"_s, QString::number(port)});
        QVERIFY(radio->listening());
        const qint64 back = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"L-1"_s, back).isEmpty(), 7000);
        QVERIFY2(listener.from(u"L-1"_s, back).first().atMs - back <= 5000,
                 qPrintable(u"announced again %1 ms after it came back"_s.arg(listener.from(u"L-1"_s, back).first().atMs - back)));
    }

    void aRadioThatStopsAnsweringIsDroppedWithinFiveSecondsAndComesBack()
    {
        RadioSim radio({u"--serial"_s, u"F-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"frozen/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"F-1"_s)}, 500));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"F-1"_s).size() >= 2, 5000);

        // Stopped, it keeps its connection open but answers nothing, like a radio behind a VPN
        // that went down.
        QCOMPARE(::kill(pid_t(radio.pid()), SIGSTOP), 0);
        const qint64 frozen = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"it stopped answering (no answer to \"ping\" within 2 seconds)"_s), 6000);
        QTest::qWait(500);
        const QList<Received> after = listener.from(u"F-1"_s, frozen);
        QVERIFY(!after.isEmpty()); // it was announced until it was found out
        QVERIFY2(after.last().atMs - frozen <= 5000, qPrintable(u"%1 ms"_s.arg(after.last().atMs - frozen)));

        QTest::qWait(3000);
        QCOMPARE(::kill(pid_t(radio.pid()), SIGCONT), 0);
        const qint64 thawed = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"F-1"_s, thawed).isEmpty(), 7000);
        QVERIFY2(listener.from(u"F-1"_s, thawed).first().atMs - thawed <= 5000,
                 qPrintable(u"%1 ms"_s.arg(listener.from(u"F-1"_s, thawed).first().atMs - thawed)));
    }

    void aLineLongerThanARadioSendsIsRefusedEvenWhenItArrivesWhole_data()
    {
        QTest::addColumn<qsizetype>("length");
        QTest::addColumn<bool>("refused");
        QTest::newRow("longest") << longestRadioLine << false;
        QTest::newRow("one byte more") << longestRadioLine + 1 << true;
    }

    void aLineLongerThanARadioSendsIsRefusedEvenWhenItArrivesWhole()
    {
        QFETCH(qsizetype, length);
        QFETCH(bool, refused);
        QTcpServer radio;
        QVERIFY(radio.listen(QHostAddress::LocalHost, 0));
        // The greeting and the long line with its end, in one piece: the line is complete when
        // it is read.
        const QByteArray line = 'S' + QByteArray(length - 1, 'x');
        QObject::connect(&radio, &QTcpServer::newConnection, &radio, [&radio, &line] {
            radio.nextPendingConnection()->write("V1.4.0.0\nH1A2B\n" + line + "\nS1|after\n");
        });
        QList<QByteArray> lines;
        std::optional<ConnectionFailure::Kind> failure;
        CommandChannel channel(Endpoint{u"127.0.0.1"_s, radio.serverPort()}, 5000,
                               {nullptr, [] {}, [&lines](const QByteArray &got) { lines << got; },
                                [&failure](const ConnectionFailure &why) { failure = why.kind; }});
        channel.start();
        if (refused) {
            QTRY_VERIFY_WITH_TIMEOUT(failure.has_value(), 5000);
            QCOMPARE(*failure, ConnectionFailure::Kind::LineTooLong);
            QVERIFY(lines.isEmpty());
        } else {
            QTRY_COMPARE_WITH_TIMEOUT(lines.size(), 2, 5000);
            QCOMPARE(lines.first(), line);
            QVERIFY(!failure);
        }
    }

    void aHostileRadioIsDroppedWhileTheOthersStayOnTime_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QStringList>("reasons");
        const QString tooLong = u"it sent a line longer than 64 KiB"_s;
        const QString flood = u"it sent more than a radio ever does in a second"_s;
        QTest::newRow("long line") << u"long-line"_s << QStringList{tooLong};
        QTest::newRow("line ends") << u"flood-newlines"_s << QStringList{flood};
        QTest::newRow("status lines") << u"flood-status"_s << QStringList{flood};
        QTest::newRow("garbage") << u"flood-garbage"_s << QStringList{flood, tooLong, u"it does not answer as a radio"_s};
    }

    void aHostileRadioIsDroppedWhileTheOthersStayOnTime()
    {
        QFETCH(QString, fault);
        QFETCH(QStringList, reasons);
        RadioSim good({u"--serial"_s, u"P-1"_s});
        RadioSim hostile({u"--serial"_s, u"P-2"_s, u"--fault"_s, fault});
        QVERIFY(good.listening() && hostile.listening());
        const QString config = path(u"hostile-%1/config.json"_s.arg(fault));
        writeInPlace(config, configuration({radioEntry(good.address(), u"P-1"_s), radioEntry(hostile.address(), u"P-2"_s)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"P-1"_s).isEmpty(), 5000);
        const qint64 from = clock.elapsed();
        QTest::qWait(4000);

        // Dropped for a reason the log names, and tried again (more than one connection).
        const QString log = service.log();
        const bool named = std::any_of(reasons.begin(), reasons.end(), [&](const QString &reason) {
            return log.contains(u"at %1 does not answer (%2)"_s.arg(hostile.address(), reason))
                   || log.contains(u"at %1: it stopped answering (%2)"_s.arg(hostile.address(), reason));
        });
        QVERIFY2(named, qPrintable(log));
        QVERIFY2(hostile.connections() >= 2, qPrintable(log));
        // The other radio kept its beat all along.
        const QList<Received> beacons = listener.from(u"P-1"_s, from);
        QVERIFY(beacons.size() >= 12);
        for (qsizetype i = 1; i < beacons.size(); ++i)
            QVERIFY2(beacons.at(i).atMs - beacons.at(i - 1).atMs <= 500,
                     qPrintable(u"gap of %1 ms"_s.arg(beacons.at(i).atMs - beacons.at(i - 1).atMs)));
#if !defined(__SANITIZE_ADDRESS__)
        // Memory stays bounded (the sanitizer's quarantine holds freed memory, so only here).
        const double peak = peakResidentMiB(service.process().processId());
        QVERIFY2(peak > 0 && peak < 48, qPrintable(u"peak resident memory %1 MiB"_s.arg(peak)));
#endif
    }

    // The state a radio's status lines build, line by line.
    void statusLinesBuildTheRadiosState()
    {
        RadioState state;
        takeIdentity(state, parseInfo(u"model=\"FLEX-6600\",chassis_serial=\"0621-1104-6601-1641\",name=\"Shack\","
                                      u"callsign=\"N0CALL\",num_slice=4,software_ver=3.2.39.3374,mac=00:1C:2D:05:1A:68"_s),
                     {});
        const quint32 own = 0x2A000001;
        applyStatus(state, u"radio slices=4 panadapters=4 nickname=Shack\x7f" u"6600 callsign=N0CALL"_s, own);
        applyStatus(state, u"radio filter_sharpness VOICE level=2 slices=0"_s, own); // another object
        applyStatus(state, u"client 0x2A000001 connected program=Veldspar station=Self"_s, own); // ours
        applyStatus(state, u"client 0x10C05077 connected local_ptt=1 client_id=74F5 program=SmartSDR-Win"_s, own);
        applyStatus(state, u"client 0x10C05077 connected local_ptt=1 client_id=74F5 program=SmartSDR-Win "
                           u"station=OFFICE\x7fWIN"_s, own);
        applyStatus(state, u"client 0x0000ABCD connected program=SmartSDR-M station=Maestro"_s, own);
        applyStatus(state, u"radio slices=2 panadapters=1"_s, own);
        applyStatus(state, u"wan server_connected=1 radio_authenticated=1"_s, own);
        applyStatus(state, u"client 0xZZ connected program=Broken"_s, own); // not a handle
        applyStatus(state, u"client 0x0000ABCD disconnected forced=0"_s, own);
        applyStatus(state, u"client 0x0000ABCD disconnected forced=0"_s, own); // twice: no harm
        applyStatus(state, u"license radio_id=1 highest_major_version=4"_s, own);
        QCOMPARE(state.nickname, u"Shack 6600"_s);
        QCOMPARE(state.guiClients.size(), 1);
        QCOMPARE(state.guiClients.first().handle, 0x10C05077u);
        QCOMPARE(state.guiClients.first().station, u"OFFICE WIN"_s);
        QCOMPARE(state.freeSlices, std::optional<int>(2));
        QCOMPARE(state.freePanadapters, std::optional<int>(1));

        ConfiguredRadio configured;
        configured.serialNumber = u"0000-0000-0000-0000"_s;
        configured.model = u"FLEX-6600"_s;
        const Beacon beacon = beaconWith(beaconFields(state, configured, u"10.8.0.20"_s, 4992));
        QCOMPARE(beacon.keys(), realBeaconKeys);
        QCOMPARE(valuesOf(beacon, {u"model"_s, u"serial"_s, u"nickname"_s, u"status"_s, u"max_licensed_version"_s,
                                   u"radio_license_id"_s, u"wan_connected"_s, u"available_clients"_s,
                                   u"max_slices"_s, u"available_slices"_s, u"max_panadapters"_s,
                                   u"available_panadapters"_s, u"gui_client_stations"_s, u"gui_client_handles"_s}),
                 u"model=FLEX-6600 | serial=0621-1104-6601-1641 | nickname=Shack 6600 | status=Available | "
                 u"max_licensed_version=v4 | radio_license_id=00-1C-2D-05-1A-68 | wan_connected=1 | "
                 u"available_clients=1 | max_slices=4 | available_slices=2 | max_panadapters=4 | "
                 u"available_panadapters=1 | gui_client_stations=OFFICE WIN | gui_client_handles=0x10C05077"_s);
    }

    // The radios' connections may take every descriptor the service may open; beacons must
    // still go out, so the sender's socket has to exist before they do.
    void beaconsStillGoOutWhenNoDescriptorIsLeft()
    {
        QUdpSocket listener;
        QVERIFY(listener.bind(QHostAddress::LocalHost, 0));
        BeaconSender sender({{QHostAddress(QHostAddress::LocalHost), listener.localPort()}});

        rlimit before{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &before), 0);
        const int spare = ::dup(0);
        QVERIFY(spare >= 0);
        ::close(spare);
        rlimit exhausted = before;
        exhausted.rlim_cur = rlim_t(spare); // the lowest free descriptor is now out of reach
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
        const int refused = ::dup(0);
        sender.send(QByteArrayLiteral("beacon"), QHostAddress(QHostAddress::LocalHost), {u"R"_s, u"The radio"_s});
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &before), 0);
        QCOMPARE(refused, -1);

        QTRY_VERIFY_WITH_TIMEOUT(listener.hasPendingDatagrams(), 5000);
        QCOMPARE(listener.receiveDatagram().data(), QByteArrayLiteral("beacon"));
    }

    // ---- beacons on the local networks ----

    void beaconsGoOnceOutOfEachLocalNetworkButTheRadios()
    {
        const auto described = [](const QList<Outlet> &outlets) {
            QStringList texts;
            for (const Outlet &outlet : outlets)
                texts << u"%1 (%2)"_s.arg(outlet.text()).arg(outlet.interfaceIndex);
            return texts;
        };
        const LocalNetwork wired{u"eth0"_s, 2, {{QHostAddress(u"192.168.1.10"_s), 24}}};
        const LocalNetwork wireless{u"wlan0"_s, 3, {{QHostAddress(u"10.0.0.5"_s), 24}, {QHostAddress(u"172.20.0.1"_s), 16}}};
        // A radio beyond a tunnel or a router: on each network, out of its own interface.
        QCOMPARE(described(outletsFor({wired, wireless}, QHostAddress(u"10.8.0.1"_s))),
                 QStringList({u"255.255.255.255:4992 on eth0 (2)"_s, u"255.255.255.255:4992 on wlan0 (3)"_s}));
        // A radio on a network (any of its interface's subnets) announces itself there.
        QCOMPARE(described(outletsFor({wired, wireless}, QHostAddress(u"172.20.9.9"_s))),
                 QStringList({u"255.255.255.255:4992 on eth0 (2)"_s}));
        QCOMPARE(described(outletsFor({wired}, QHostAddress(u"192.168.1.77"_s))), QStringList());
        // No local network: this computer's own listeners, through the loopback.
        QCOMPARE(described(outletsFor({}, QHostAddress(u"10.8.0.1"_s))), QStringList({u"127.255.255.255:4992 (0)"_s}));
    }

    void eachLanHearsTheRadioOnceABeatAndNothingGoesTowardIt_data()
    {
        QTest::addColumn<Way>("way");
        QTest::addColumn<QString>("where"); // as the log says it
        QTest::newRow("full-tunnel VPN") << Way::FullTunnel << u"is announced on lan0."_s;
        QTest::newRow("split-tunnel point-to-point VPN") << Way::SplitTunnel << u"is announced on lan0."_s;
        QTest::newRow("Ethernet-like VPN to the radio's subnet") << Way::EthernetLink << u"is announced on lan0."_s;
        QTest::newRow("site-to-site VPN on the LAN's router") << Way::RouterOnTheLan << u"is announced on lan0."_s;
        QTest::newRow("no LAN, a full-tunnel VPN") << Way::TunnelOnly << u"is announced on this computer only (loopback)."_s;
    }

    // Listeners on the LAN, on the service's own computer (with either habit of binding the
    // port, while the service runs) and beyond the link at the radio's site.
    void eachLanHearsTheRadioOnceABeatAndNothingGoesTowardIt()
    {
        QFETCH(Way, way);
        QFETCH(QString, where);
        if (const QString why = whyNoNetworkLayouts(); !why.isEmpty())
            QSKIP(qPrintable(why));
        LayoutRun run(way, u"N-1"_s, path(u"lans/config.json"_s));
        QVERIFY2(run.lab.problems().isEmpty(), qPrintable(run.lab.problems()));
        QVERIFY(run.radio.listening());
        QTRY_VERIFY2_WITH_TIMEOUT(lastSaidWhere(run.service.log()) == where, qPrintable(run.service.log()), 10000);
        const qint64 announcedMs = run.clock.elapsed();

        // Two clients with different habits cannot hold the port together: one after the other.
        for (const auto &[option, habit] : {std::pair{SO_REUSEADDR, u"SO_REUSEADDR"_s}, std::pair{SO_REUSEPORT, u"SO_REUSEPORT"_s}}) {
            BeaconListener onThisComputer(run.clock, boundInside(run.lab, run.layout.host, option));
            QVERIFY2(run.lab.problems().isEmpty(), qPrintable(u"with %1: %2"_s.arg(habit, run.lab.problems())));
            const qint64 fromMs = run.clock.elapsed();
            QTest::qWait(1500);
            const QString heard = run.onceABeat(onThisComputer, fromMs);
            QVERIFY2(heard.isEmpty(), qPrintable(u"on the service's computer, with %1: %2"_s.arg(habit, heard)));
        }
        if (way != Way::TunnelOnly) {
            const QString heard = run.onceABeat(run.onLan, announcedMs);
            QVERIFY2(heard.isEmpty(), qPrintable(u"on the LAN: "_s + heard));
        }
        QVERIFY2(run.atTheSite.datagrams().isEmpty(),
                 qPrintable(u"%1 datagrams went toward the radio"_s.arg(run.atTheSite.datagrams().size())));
        QCOMPARE(run.service.log().count(where), 1); // said once, not at every beat
    }

    // Interfaces appear, lose their carrier, get it back and go while the service runs.
    void interfacesThatComeAndGoTakeEffectWithinFiveSeconds()
    {
        if (const QString why = whyNoNetworkLayouts(); !why.isEmpty())
            QSKIP(qPrintable(why));
        LayoutRun run(Way::TunnelOnly, u"M-1"_s, path(u"moves/config.json"_s));
        QVERIFY2(run.lab.problems().isEmpty(), qPrintable(run.lab.problems()));
        QVERIFY(run.radio.listening());
        BeaconListener onThisComputer(run.clock, boundInside(run.lab, run.layout.host, SO_REUSEPORT));
        QVERIFY2(run.lab.problems().isEmpty(), qPrintable(run.lab.problems()));
        const QString onLoopback = u"is announced on this computer only (loopback)."_s;
        const QString onLan0 = u"is announced on lan0."_s;
        QTRY_VERIFY2_WITH_TIMEOUT(lastSaidWhere(run.service.log()) == onLoopback, qPrintable(run.service.log()), 10000);

        const std::pair<std::function<void()>, QString> changes[] = {
            {[&] { joinLan(run.lab, run.layout); }, onLan0},
            {[&] { run.lab.in(run.layout.lan, {u"link set eth0 down"_s}); }, onLoopback}, // the cable is pulled
            {[&] { run.lab.in(run.layout.lan, {u"link set eth0 up"_s}); }, onLan0},
            {[&] { run.lab.in(run.layout.host, {u"link delete lan0"_s}); }, onLoopback},
        };
        for (const auto &[change, where] : changes) {
            change();
            QVERIFY2(run.lab.problems().isEmpty(), qPrintable(run.lab.problems()));
            QTRY_VERIFY2_WITH_TIMEOUT(lastSaidWhere(run.service.log()) == where, qPrintable(run.service.log()), 5000);
            const qint64 fromMs = run.clock.elapsed();
            QTest::qWait(1000);
            const QString heard = run.onceABeat(onThisComputer, fromMs);
            QVERIFY2(heard.isEmpty(), qPrintable(u"on the service's computer, %1 %2"_s.arg(where, heard)));
            if (where == onLan0) {
                const QString onTheLan = run.onceABeat(run.onLan, fromMs);
                QVERIFY2(onTheLan.isEmpty(), qPrintable(u"on the LAN: "_s + onTheLan));
            }
        }
        QCOMPARE(run.service.log().count(u" is announced"_s), 5); // at each change, not at every beat
        QVERIFY(run.atTheSite.datagrams().isEmpty());
    }

    // --broadcast replaces the local networks: beacons go there, and nowhere else.
    void givenDestinationsReplaceTheLocalNetworks()
    {
        if (const QString why = whyNoNetworkLayouts(); !why.isEmpty())
            QSKIP(qPrintable(why));
        // Any port is free on the host's own loopback; it is bound as soon as the host exists.
        LayoutRun run(Way::SplitTunnel, u"G-1"_s, path(u"given/config.json"_s), {u"127.0.0.1:4993"_s});
        BeaconListener given(run.clock, boundInside(run.lab, run.layout.host, SO_REUSEADDR, INADDR_LOOPBACK, 4993));
        BeaconListener onPort4992(run.clock, boundInside(run.lab, run.layout.host, SO_REUSEADDR));
        QVERIFY2(run.lab.problems().isEmpty(), qPrintable(run.lab.problems()));
        QVERIFY(run.radio.listening());
        QTRY_VERIFY_WITH_TIMEOUT(!given.from(u"G-1"_s).isEmpty(), 10000);
        const qint64 fromMs = run.clock.elapsed();
        QTest::qWait(1500);
        const QString heard = run.onceABeat(given, fromMs);
        QVERIFY2(heard.isEmpty(), qPrintable(heard));
        QVERIFY(run.onLan.datagrams().isEmpty());
        QVERIFY(onPort4992.datagrams().isEmpty());
        QVERIFY(run.atTheSite.datagrams().isEmpty());
        QVERIFY2(run.service.log().contains(u"Beacons go to 127.0.0.1:4993."_s), qPrintable(run.service.log()));
        QVERIFY2(!run.service.log().contains(u" is announced"_s), qPrintable(run.service.log()));
    }

    void aRadioCannotOverfillItsBeacon()
    {
        RadioState state;
        const QString huge(100000, u'n');
        takeIdentity(state, {{u"name"_s, huge}, {u"chassis_serial"_s, u"S-1"_s}}, {});
        for (int i = 0; i < 1000; ++i)
            applyStatus(state, u"client 0x%1 connected program=%2 station=%2"_s.arg(i + 1, 8, 16, QChar(u'0')).arg(huge), 0);
        QCOMPARE(state.guiClients.size(), mostGuiClients);
        const QByteArray payload = beaconPayload(beaconFields(state, {}, u"10.0.0.1"_s, 4992));
        QVERIFY2(payload.size() < 8192, qPrintable(QString::number(payload.size())));
        QCOMPARE(state.nickname.size(), longestRadioName);
        // Sixteen clients on a radio with two places: none free, and never a negative count.
        QCOMPARE(decodeBeacon(beaconPacket(payload, 0, 0))->value(u"available_clients"_s), u"0"_s);
    }

    void aBeaconTooLargeForADatagramFailsForItsRadioAlone()
    {
        QUdpSocket listener;
        QVERIFY(listener.bind(QHostAddress::LocalHost, 0));
        BeaconSender sender({{QHostAddress(QHostAddress::LocalHost), listener.localPort()}});
        const QString destination = u"127.0.0.1:"_s + QString::number(listener.localPort());
        QList<BeaconSent> huge;
        QList<BeaconSent> small;
        const QString log = standardErrorDuring([&] {
            for (int beat = 0; beat < 4; ++beat) {
                huge << sender.send(QByteArray(70000, 'x'), QHostAddress(QHostAddress::LocalHost), {u"A"_s, u"Radio A"_s});
                small << sender.send(QByteArrayLiteral("beacon"), QHostAddress(QHostAddress::LocalHost), {u"B"_s, u"Radio B"_s});
            }
        });
        for (const BeaconSent &sent : std::as_const(huge)) {
            QVERIFY(!sent.sent);
            QCOMPARE(sent.problem, u"the beacon is 70000 bytes, more than the 65507 a datagram holds"_s);
        }
        for (const BeaconSent &sent : std::as_const(small))
            QVERIFY(sent.sent && sent.problem.isEmpty());
        // Said once for the radio whose beacon fails, never for the other, and no flapping.
        QCOMPARE(log, u"Cannot send the beacon of Radio A to %1: the beacon is 70000 bytes, more than the 65507 a "
                      u"datagram holds.\n"_s.arg(destination));
    }

    void aRadiosOverlongTextsStayOutOfItsBeaconAndTheStateFile()
    {
        RadioSim hostile({u"--serial"_s, QString(1119, u'7'), u"--name"_s, QString(40, u'N'), u"--callsign"_s,
                          QString(300, u'K')});
        RadioSim fine({u"--serial"_s, u"OK-1"_s, u"--name"_s, u"Fine"_s});
        QVERIFY(hostile.listening() && fine.listening());
        const QString runtime = path(u"overlong-runtime"_s);
        QVERIFY(QDir().mkpath(runtime));
        QVERIFY(QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        const RuntimeFolder folder(runtime);
        const QString config = path(u"overlong/config.json"_s);
        writeInPlace(config, configuration({radioEntry(hostile.address(), u"OV-1"_s), radioEntry(fine.address(), u"OK-1"_s)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});

        // A serial longer than any radio's is none: the configured one is announced.
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"OV-1"_s).isEmpty() && !listener.from(u"OK-1"_s).isEmpty(), 8000);
        for (const Received &received : listener.all()) {
            QCOMPARE_LE(received.beacon.value(u"serial"_s).size(), longestSerialNumber);
            QCOMPARE_LE(received.beacon.value(u"nickname"_s).size(), longestRadioName);
            QCOMPARE_LE(received.beacon.value(u"callsign"_s).size(), longestCallsign);
        }
        QCOMPARE(listener.from(u"OV-1"_s).last().beacon.value(u"nickname"_s), QString(15, u'N'));
        const QString stateFile = runtime + u"/Veldspar/state.json"_s;
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"OV-1"_s).value(u"state"_s).toString(), u"announced"_s, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"OK-1"_s).value(u"state"_s).toString(), u"announced"_s, 5000);
        QCOMPARE(liveRadio(stateAt(stateFile), u"OV-1"_s).value(u"name"_s).toString(), QString(15, u'N'));
        // The app reads both.
        const std::optional<ServiceLiveState> read = parseLiveState(readFile(stateFile));
        QVERIFY(read);
        QCOMPARE(read->radios.size(), 2);
    }

    void configurationChangesArePickedUpWithinOneSecond()
    {
        RadioSim a({u"--serial"_s, u"C-A"_s});
        RadioSim b({u"--serial"_s, u"C-B"_s});
        QVERIFY(a.listening() && b.listening());
        const QString config = path(u"changes/config.json"_s);
        writeInPlace(config, configuration({radioEntry(a.address(), u"C-A"_s), radioEntry(b.address(), u"C-B"_s, false)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"C-A"_s).size() >= 2, 5000);
        QVERIFY(listener.from(u"C-B"_s).isEmpty());

        // Replaced by a rename, as the import mode does: B on, A off.
        const qint64 renamed = clock.elapsed();
        replaceByRename(config, configuration({radioEntry(a.address(), u"C-A"_s, false), radioEntry(b.address(), u"C-B"_s)}, 250));
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"C-B"_s).isEmpty(), 3000);
        QVERIFY2(listener.from(u"C-B"_s).first().atMs - renamed <= 1000,
                 qPrintable(u"%1 ms"_s.arg(listener.from(u"C-B"_s).first().atMs - renamed)));
        QTest::qWait(1200);
        QVERIFY(listener.from(u"C-A"_s, renamed + 1000).isEmpty());

        // Written in place: A on again, every 500 ms.
        const qint64 written = clock.elapsed();
        writeInPlace(config, configuration({radioEntry(a.address(), u"C-A"_s), radioEntry(b.address(), u"C-B"_s)}, 500));
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"C-A"_s, written).isEmpty(), 3000);
        QVERIFY(listener.from(u"C-A"_s, written).first().atMs - written <= 1000);
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"C-B"_s, written + 1000).size() >= 3, 5000);
        const QList<Received> slower = listener.from(u"C-B"_s, written + 1000);
        for (qsizetype i = 1; i < slower.size(); ++i)
            QVERIFY(qAbs(slower.at(i).atMs - slower.at(i - 1).atMs - 500) <= 50);
    }

    void aBrokenConfigurationKeepsTheLastGoodOne()
    {
        RadioSim radio({u"--serial"_s, u"K-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"broken/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"K-1"_s)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(listener.from(u"K-1"_s).size() >= 2, 5000);

        const qint64 broken = clock.elapsed();
        writeInPlace(config, "{\"radios\": [");
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"Keeping the previous configuration"_s), 1000);
        QVERIFY(service.log().contains(u"The configuration is not valid JSON"_s));
        replaceByRename(config, R"({"radios": [{"serialNumber": "K-1", "enabled": true}]})");
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"Radio 1 has no IP address."_s), 1000);
        QTest::qWait(1000);
        // Still announced, at its interval, all along.
        const QList<Received> since = listener.from(u"K-1"_s, broken - 250);
        QVERIFY(since.size() >= 5);
        QVERIFY(since.first().atMs <= broken);
        QVERIFY(since.last().atMs >= clock.elapsed() - 275);
        for (qsizetype i = 1; i < since.size(); ++i)
            QVERIFY(since.at(i).atMs - since.at(i - 1).atMs <= 275);
    }

    void aMissingConfigurationIsAwaited()
    {
        RadioSim radio({u"--serial"_s, u"M-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"missing/not-yet/config.json"_s);
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"No configuration at %1 yet"_s.arg(config)), 2000);
        replaceByRename(config, configuration({radioEntry(radio.address(), u"M-1"_s)}, 250));
        const qint64 created = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"M-1"_s).isEmpty(), 3000);
        QVERIFY(listener.from(u"M-1"_s).first().atMs - created <= 1000);
    }

    void stopSignalsEndTheServiceWithinOneSecond_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGINT") << SIGINT;
    }

    void stopSignalsEndTheServiceWithinOneSecond()
    {
        QFETCH(int, signal);
        RadioSim radio({u"--serial"_s, u"T-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"signals/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"T-1"_s)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"T-1"_s).isEmpty(), 5000);
        QElapsedTimer stopping;
        stopping.start();
        QCOMPARE(::kill(pid_t(service.process().processId()), signal), 0);
        QVERIFY(service.process().waitForFinished(1000));
        QVERIFY(stopping.elapsed() < 1000);
        QCOMPARE(service.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(service.process().exitCode(), 0);
        QVERIFY(service.log().contains(signal == SIGTERM ? u"Stopping (SIGTERM)."_s : u"Stopping (SIGINT)."_s));
    }

    // 3,000 radios and room for 1,024 open files: most radios cannot even get a socket.
    void outOfDescriptorsIsLoggedOnceAndTheServiceStillServesAndStops()
    {
        RadioSim radio({u"--serial"_s, u"FD-1"_s});
        QVERIFY(radio.listening());
        FullListener unreachable; // each attempt there holds its socket until it times out
        QVERIFY(unreachable.port() != 0);
        QList<QJsonObject> radios{radioEntry(radio.address(), u"FD-1"_s)};
        for (int i = 1; i < 3000; ++i)
            radios << radioEntry(u"127.0.0.1:"_s + QString::number(unreachable.port()), u"U-%1"_s.arg(i));
        const QString config = path(u"descriptors/config.json"_s);
        writeInPlace(config, configuration(radios, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()}, [] {
            const rlimit limit{1024, 1024};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        });
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"FD-1"_s).isEmpty(), 10000);
        const QString exhausted = u"Out of file descriptors"_s;
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(exhausted), 10000);
        // Retries go on meanwhile; the radio that has its connection stays announced.
        QTest::qWait(4000);
        const qint64 stillAnnounced = clock.elapsed() - 1500;
        QVERIFY2(!listener.from(u"FD-1"_s, stillAnnounced).isEmpty(), "the connected radio is no longer announced");
        QElapsedTimer stopping;
        stopping.start();
        QCOMPARE(::kill(pid_t(service.process().processId()), SIGTERM), 0);
        QVERIFY2(service.process().waitForFinished(5000), "SIGTERM did not stop the service");
        QCOMPARE(service.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(service.process().exitCode(), 0);
        const QString log = service.log();
        QVERIFY(log.contains(u"Stopping (SIGTERM)."_s));
        QCOMPARE(log.count(exhausted), 1);
        QVERIFY2(!log.contains(u"Out of resources"_s), qPrintable(log.left(2000)));
    }

    void theServiceTakesEveryOpenFileItIsAllowed()
    {
        const QString config = path(u"open-files/config.json"_s);
        writeInPlace(config, configuration({}, 250));
        RunningService service(config, {u"127.0.0.1:9"_s}, [] {
            const rlimit limit{1024, 8192};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        });
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"Configuration loaded"_s), 5000);
        QFile limits(u"/proc/%1/limits"_s.arg(service.process().processId()));
        QVERIFY(limits.open(QIODevice::ReadOnly));
        const QByteArray text = limits.readAll();
        QVERIFY2(QRegularExpression(u"Max open files +8192 +8192 "_s).match(QString::fromUtf8(text)).hasMatch(), text.constData());
    }

    // ---- with the application ----

    void aRadioAddedInTheAppIsSavedAndAnnounced()
    {
        RadioSim radio({u"--serial"_s, u"1121-1104-6700-2912"_s, u"--name"_s, u"RemoteShack"_s, u"--model"_s,
                        u"FLEX-6600"_s, u"--callsign"_s, u"W1AW"_s, u"--version"_s, u"3.3.32.8203"_s});
        QVERIFY(radio.listening());
        TestWorld world;
        world.useServiceExecutable(serviceProgram);
        const QByteArray before = configWith({});
        world.writeConfig(before);
        {
            RunningApp app(world);
            DialogAnswerer answers;
            answers.willPress(u"OK"_s, radio.address());
            app.click(app.button(u"Add Radio\u2026"_s));
            QVERIFY(app.waitUntilIdle(30000));
            QCOMPARE(answers.shown().size(), 1); // the question only: no error
            QCOMPARE(app.statusText(), u"Saved. Previous configuration backed up; running service reloads automatically."_s);
            QCOMPARE(app.rowCount(), 1);
        }
        const QJsonObject written = parseObject(world.readConfig());
        const QJsonObject expected{{u"ipAddress"_s, radio.address()}, {u"serialNumber"_s, u"1121-1104-6700-2912"_s},
                                   {u"name"_s, u"RemoteShack"_s},      {u"model"_s, u"FLEX-6600"_s},
                                   {u"callsign"_s, u"W1AW"_s},         {u"version"_s, u"3.3.32.8203"_s},
                                   {u"enabled"_s, true}};
        QCOMPARE(written.value(u"radios"_s).toArray(), QJsonArray({expected}));
        const QStringList backups = backupsBeside(world.configPath());
        QCOMPARE(backups.size(), 1);
        QCOMPARE(readFile(QFileInfo(world.configPath()).path() + u"/backups/"_s + backups.first()), before);

        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(world.configPath(), {listener.destination()});
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"1121-1104-6700-2912"_s).isEmpty(), 5000);
        const Beacon beacon = listener.from(u"1121-1104-6700-2912"_s).first().beacon;
        QCOMPARE(beacon.value(u"nickname"_s), u"RemoteShack"_s);
        QCOMPARE(beacon.value(u"ip"_s), u"127.0.0.1"_s);
        QCOMPARE(beacon.value(u"port"_s), QString::number(radio.port()));
    }

    void theAppShowsWhatTheRunningServiceSays()
    {
        std::optional<RadioSim> radio(std::in_place, QStringList{u"--serial"_s, u"E-1"_s, u"--name"_s, u"Shack"_s});
        QVERIFY(radio->listening());
        TestWorld world; // its runtime folder is the one the service and the app share
        QJsonObject entry = radioEntry(radio->address(), u"E-1"_s);
        entry.insert(u"name"_s, u"Shack"_s);
        world.writeConfig(configuration({entry}, 500));
        RunningService service(world.configPath(), {u"127.0.0.1:9"_s});
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));

        QTRY_COMPARE_WITH_TIMEOUT(app.announcement(), u"Announced \u00B7 0 of 2 clients in use"_s, 8000);
        radio->tell("join-handle 0x7022E1CF SmartSDR-Win OFFICE-WIN");
        QTRY_COMPARE_WITH_TIMEOUT(app.announcement(),
                                  u"Announced \u00B7 1 of 2 clients in use (SmartSDR-Win at OFFICE-WIN)"_s, 8000);
        radio.reset();
        QTRY_VERIFY_WITH_TIMEOUT(app.announcement().startsWith(u"Not answering: "_s), 8000);
        QVERIFY(app.announcement().contains(u", since "_s));
        QVERIFY(service.stops());
        QTRY_COMPARE_WITH_TIMEOUT(app.announcement(), u"Not announced: the service is not running"_s, 5000);
    }

    // ---- the two probes started first ----

    void discoveryGivesUpOnAnUnreachableAddressAfterFiveSeconds()
    {
        const Run run = m_unreachableProbe.result();
        QCOMPARE(run.status, 1);
        QVERIFY2(run.elapsedMs >= 4800 && run.elapsedMs < 7000, qPrintable(QString::number(run.elapsedMs)));
        const QString address = u"127.0.0.1:"_s + QString::number(m_fullListener->port());
        QCOMPARE(run.lastLine(), u"Cannot reach %1: no answer to the connection within 5 seconds. Check that the VPN to "
                                 u"the radio's network is connected and that the address is right."_s.arg(address));
    }

    void discoveryGivesUpOnASilentRadioAfterFifteenSeconds()
    {
        const Run run = m_silentProbe.result();
        QCOMPARE(run.status, 1);
        QVERIFY2(run.elapsedMs >= 14800 && run.elapsedMs < 17000, qPrintable(QString::number(run.elapsedMs)));
        QVERIFY2(run.lastLine().startsWith(
                     u"%1 accepted the connection but did not send the radio's details within 15 seconds."_s.arg(
                         m_silentRadio->address())),
                 qPrintable(run.output));
    }

    void theStateFileFollowsEachRadio()
    {
        std::optional<RadioSim> radio(std::in_place, QStringList{u"--serial"_s, u"ST-1"_s, u"--name"_s, u"Shack"_s});
        QVERIFY(radio->listening());
        const quint16 port = radio->port();
        const QString refusing = u"127.0.0.1:"_s + QString::number(closedPort());
        const QString runtime = path(u"state-runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        const RuntimeFolder folder(runtime);
        const QString config = path(u"state/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio->address(), u"ST-1"_s), radioEntry(refusing, u"ST-2"_s),
                                            radioEntry(u"127.0.0.1:1"_s, u"ST-3"_s, false)},
                                           500));
        const QString stateFile = runtime + u"/Veldspar/state.json"_s;
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});

        // Announced, with its status and clients; the refusing one with the log's reason; the
        // excluded one not at all.
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"ST-1"_s).value(u"state"_s).toString(), u"announced"_s, 5000);
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"ST-2"_s).value(u"state"_s).toString(), u"notAnswering"_s, 5000);
        std::optional<QJsonObject> state = stateAt(stateFile);
        QCOMPARE(state->value(u"pid"_s).toInteger(), service.process().processId());
        QCOMPARE(state->value(u"radios"_s).toArray().size(), 2);
        const QJsonObject announced = liveRadio(state, u"ST-1"_s);
        QCOMPARE(announced.value(u"ipAddress"_s).toString(), radio->address());
        QCOMPARE(announced.value(u"name"_s).toString(), u"Shack"_s);
        QCOMPARE(announced.value(u"status"_s).toString(), u"Available"_s);
        QCOMPARE(announced.value(u"licensedClients"_s).toInt(), 2);
        QCOMPARE(announced.value(u"guiClients"_s).toArray().size(), 0);
        QVERIFY(QDateTime::fromString(announced.value(u"since"_s).toString(), Qt::ISODateWithMs).isValid());
        QVERIFY(QDateTime::fromString(announced.value(u"lastBeacon"_s).toString(), Qt::ISODateWithMs).isValid());
        const QJsonObject refused = liveRadio(state, u"ST-2"_s);
        QCOMPARE(refused.value(u"reason"_s).toString(), u"connection refused"_s);
        QVERIFY(service.log().contains(u"does not answer (connection refused)"_s));
        struct stat info{};
        QCOMPARE(::stat(QFile::encodeName(stateFile).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0600));

        // A client joins: the file says so.
        radio->tell("join-handle 0x7022E1CF SmartSDR-Win OFFICE-WIN");
        QVERIFY(radio->printed("gui client 0x7022E1CF joined"));
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"ST-1"_s).value(u"guiClients"_s).toArray().size(), 1, 5000);
        const QJsonObject client = liveRadio(stateAt(stateFile), u"ST-1"_s).value(u"guiClients"_s).toArray().first().toObject();
        QCOMPARE(client.value(u"program"_s).toString(), u"SmartSDR-Win"_s);
        QCOMPARE(client.value(u"station"_s).toString(), u"OFFICE-WIN"_s);

        // The radio goes: not answering, since then; it comes back: announced again.
        const QDateTime beforeLoss = QDateTime::currentDateTimeUtc().addMSecs(-5);
        radio.reset();
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"ST-1"_s).value(u"state"_s).toString(), u"notAnswering"_s, 8000);
        const QJsonObject lost = liveRadio(stateAt(stateFile), u"ST-1"_s);
        QVERIFY(!lost.value(u"reason"_s).toString().isEmpty());
        QVERIFY(QDateTime::fromString(lost.value(u"since"_s).toString(), Qt::ISODateWithMs) >= beforeLoss);
        QVERIFY(!lost.contains(u"guiClients"_s));
        radio.emplace(QStringList{u"--serial"_s, u"ST-1"_s, u"--port"_s, QString::number(port)});
        QVERIFY(radio->listening());
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"ST-1"_s).value(u"state"_s).toString(), u"announced"_s, 8000);

        // Stopped cleanly, the service takes its file away.
        QVERIFY(service.stops());
        QVERIFY(!QFileInfo::exists(stateFile));
        QCOMPARE(QDir(runtime + u"/Veldspar"_s).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList());
    }

    void aRadioWhoseBeaconCannotBeSentIsNotAnnounced()
    {
        if (const QString why = whyNoNetworkLayouts(); !why.isEmpty())
            QSKIP(qPrintable(why));
        // A namespace with nothing but its loopback: 10.9.9.9 has no route, and every beacon
        // sent there fails at once.
        NetworkLab lab;
        const QString space = lab.add(u"unsent"_s);
        QElapsedTimer clock;
        clock.start();
        BeaconListener heard(clock, boundInside(lab, space, SO_REUSEADDR, INADDR_LOOPBACK, 4993));
        QVERIFY2(lab.problems().isEmpty(), qPrintable(lab.problems()));
        RadioSim first({u"--serial"_s, u"U-1"_s, u"--name"_s, u"First"_s}, inside(space));
        RadioSim second({u"--serial"_s, u"U-2"_s, u"--name"_s, u"Second"_s}, inside(space));
        QVERIFY(first.listening() && second.listening());
        const RuntimeFolder folder(privateFolder(path(u"unsent-runtime"_s)));
        const QString stateFile = path(u"unsent-runtime/Veldspar/state.json"_s);
        const QString config = path(u"unsent/config.json"_s);
        writeInPlace(config, configuration({radioEntry(first.address(), u"U-1"_s), radioEntry(second.address(), u"U-2"_s)}, 250));
        const auto failures = [](RunningService &service) { return service.log().count(u"Cannot send the beacon of "_s); };

        {
            RunningService service(config, {u"10.9.9.9:4992"_s}, inside(space));
            for (const QString &serial : {u"U-1"_s, u"U-2"_s})
                QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), serial).value(u"state"_s).toString(), u"notAnnounced"_s, 8000);
            QTest::qWait(1500); // six beats
            for (const QString &serial : {u"U-1"_s, u"U-2"_s}) {
                const QJsonObject radio = liveRadio(stateAt(stateFile), serial);
                QCOMPARE(radio.value(u"state"_s).toString(), u"notAnnounced"_s);
                QVERIFY2(radio.value(u"reason"_s).toString().startsWith(u"its beacon cannot be sent ("_s),
                         qPrintable(radio.value(u"reason"_s).toString()));
                QVERIFY(radio.value(u"lastBeacon"_s).isNull());
            }
            // Once for each radio and destination.
            QCOMPARE(failures(service), 2);
            QVERIFY2(service.log().contains(u"Cannot send the beacon of Radio First at %1 to 10.9.9.9:4992: "_s.arg(first.address())),
                     qPrintable(service.log()));
            QVERIFY2(service.log().contains(u"Cannot send the beacon of Radio Second at %1 to 10.9.9.9:4992: "_s.arg(second.address())),
                     qPrintable(service.log()));
            QVERIFY(service.stops());
        }

        // Where one destination takes it, the radio is announced; the other is still said once.
        RunningService service(config, {u"127.0.0.1:4993"_s, u"10.9.9.9:4992"_s}, inside(space));
        for (const QString &serial : {u"U-1"_s, u"U-2"_s})
            QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), serial).value(u"state"_s).toString(), u"announced"_s, 8000);
        QTRY_VERIFY_WITH_TIMEOUT(!heard.from(u"U-1"_s).isEmpty() && !heard.from(u"U-2"_s).isEmpty(), 5000);
        QTest::qWait(1500);
        QCOMPARE(failures(service), 2);
        QVERIFY2(!service.log().contains(u" again."_s), qPrintable(service.log()));
    }

    void twoRadiosWithOneSerialAnnounceOnlyTheFirst()
    {
        RadioSim first({u"--serial"_s, u"DUP-1"_s, u"--name"_s, u"First"_s});
        RadioSim second({u"--serial"_s, u"DUP-1"_s, u"--name"_s, u"Second"_s});
        QVERIFY(first.listening() && second.listening());
        const RuntimeFolder folder(privateFolder(path(u"duplicate-runtime"_s)));
        const QString stateFile = path(u"duplicate-runtime/Veldspar/state.json"_s);
        const QString config = path(u"duplicate/config.json"_s);
        // The placeholder takes the radio's own serial: the clash shows only when both answer.
        writeInPlace(config, configuration({radioEntry(first.address(), u"DUP-1"_s), radioEntry(second.address(), placeholderSerial)}, 250));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});

        QTRY_COMPARE_WITH_TIMEOUT(liveRadioAt(stateAt(stateFile), second.address()).value(u"state"_s).toString(), u"notAnnounced"_s, 8000);
        QCOMPARE(liveRadioAt(stateAt(stateFile), second.address()).value(u"reason"_s).toString(),
                 u"Radio First at %1 has the same serial number DUP-1 and comes first in the configuration"_s.arg(first.address()));
        QTRY_COMPARE_WITH_TIMEOUT(liveRadioAt(stateAt(stateFile), first.address()).value(u"state"_s).toString(), u"announced"_s, 5000);
        const qint64 settledMs = clock.elapsed();
        QTest::qWait(1500); // six beats
        const QList<Received> heard = listener.from(u"DUP-1"_s, settledMs);
        QVERIFY(heard.size() >= 3);
        for (const Received &received : heard)
            QCOMPARE(received.beacon.value(u"port"_s), QString::number(first.port()));
        const QString clash = u"Radio Second at %1 reports the serial number DUP-1, as Radio First at %2 does, which comes "
                              u"first in the configuration; only that one is announced, since listeners keep one radio per "
                              u"serial number."_s.arg(second.address(), first.address());
        QCOMPARE(service.log().count(clash), 1);

        // The first goes: the second takes its place.
        first.stop();
        QTRY_COMPARE_WITH_TIMEOUT(liveRadioAt(stateAt(stateFile), second.address()).value(u"state"_s).toString(), u"announced"_s, 8000);
        const qint64 takenOverMs = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"DUP-1"_s, takenOverMs).isEmpty(), 5000);
        QCOMPARE(listener.from(u"DUP-1"_s, takenOverMs).last().beacon.value(u"port"_s), QString::number(second.port()));
        QVERIFY2(service.log().contains(u"Radio Second at %1 is announced again"_s.arg(second.address())), qPrintable(service.log()));
        QCOMPARE(service.log().count(clash), 1);
    }

    void theAppShowsWhyARadioIsNotAnnounced()
    {
        RadioSim first({u"--serial"_s, u"DUP-2"_s, u"--name"_s, u"First"_s});
        RadioSim second({u"--serial"_s, u"DUP-2"_s, u"--name"_s, u"Second"_s});
        QVERIFY(first.listening() && second.listening());
        TestWorld world; // its runtime folder is the one the service and the app share
        world.writeConfig(configuration({radioEntry(first.address(), u"DUP-2"_s), radioEntry(second.address(), u"DUP-2"_s)}, 500));
        RunningService service(world.configPath(), {u"127.0.0.1:9"_s});
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        QTRY_COMPARE_WITH_TIMEOUT(app.rowCount(), 2, 5000);
        app.selectRow(1);
        const QString why = u"Not announced: Radio First at %1 has the same serial number DUP-2 and comes first in the "
                            u"configuration, since "_s.arg(first.address());
        // The line is elided to the panel's width; its whole text is what a screen reader hears.
        const auto spoken = [&app] { return QAccessible::queryAccessibleInterface(app.announcementLine())->text(QAccessible::Name); };
        QTRY_VERIFY2_WITH_TIMEOUT(spoken().startsWith(u"Announcement: "_s + why), qPrintable(spoken()), 8000);
        app.selectRow(0);
        QTRY_COMPARE_WITH_TIMEOUT(app.announcement(), u"Announced \u00B7 0 of 2 clients in use"_s, 8000);
    }

    void theStateFileIsWrittenAtMostOnceASecond()
    {
        // Clients that come and go every 400 ms keep the state changing.
        QStringList arguments{u"--serial"_s, u"R-1"_s};
        for (int i = 0; i < 6; ++i)
            arguments << u"--gui-client"_s << u"SmartSDR-Win,S%1,0x%2,%3,%4"_s.arg(i).arg(0x11 + i, 0, 16).arg(800 + 800 * i).arg(1200 + 800 * i);
        RadioSim radio(arguments);
        QVERIFY(radio.listening());
        const QString runtime = path(u"rate-runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        const RuntimeFolder folder(runtime);
        const QString config = path(u"rate/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"R-1"_s)}, 250));
        const QString stateFile = runtime + u"/Veldspar/state.json"_s;
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()});

        QStringList written;
        QElapsedTimer watching;
        watching.start();
        while (watching.elapsed() < 6000) {
            if (const auto state = stateAt(stateFile)) {
                const QString stamp = state->value(u"written"_s).toString();
                if (written.isEmpty() || written.last() != stamp)
                    written << stamp;
            }
            QTest::qWait(20);
        }
        // The clients came and went every 400 ms; the file changed more than once, never twice
        // within a second.
        QVERIFY2(written.size() >= 3, qPrintable(written.join(u", "_s)));
        for (qsizetype i = 1; i < written.size(); ++i) {
            const qint64 gap = QDateTime::fromString(written.at(i - 1), Qt::ISODateWithMs)
                                   .msecsTo(QDateTime::fromString(written.at(i), Qt::ISODateWithMs));
            // The stamps are wall-clock milliseconds, the pause is timed on the monotonic clock:
            // allow for both roundings.
            QVERIFY2(gap >= 995, qPrintable(u"%1 ms between %2 and %3"_s.arg(gap).arg(written.at(i - 1), written.at(i))));
        }
    }

    void theStateFileGoesBesideTheConfigurationWithoutAPrivateRuntimeFolder_data()
    {
        QTest::addColumn<QString>("runtime");
        QTest::addColumn<bool>("openToOthers");
        QTest::newRow("unset") << QString() << false;
        QTest::newRow("relative") << u"relative/runtime"_s << false;
        QTest::newRow("missing") << path(u"no-such-runtime"_s) << false;
        QTest::newRow("open to others") << path(u"open-runtime"_s) << true;
    }

    void theStateFileGoesBesideTheConfigurationWithoutAPrivateRuntimeFolder()
    {
        QFETCH(QString, runtime);
        QFETCH(bool, openToOthers);
        if (openToOthers) {
            QVERIFY(QDir().mkpath(runtime));
            QVERIFY(QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                       | QFile::ReadOther | QFile::ExeOther));
        }
        const RuntimeFolder folder(runtime);
        const QString config = path(u"beside-%1/config.json"_s.arg(QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-')));
        writeInPlace(config, configuration({radioEntry(u"127.0.0.1:1"_s, u"B-1"_s)}, 1000));
        RunningService service(config, {u"127.0.0.1:9"_s});
        const QString beside = QFileInfo(config).absolutePath() + u"/state.json"_s;
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(beside), u"B-1"_s).value(u"state"_s).toString(), u"notAnswering"_s, 5000);
        struct stat info{};
        QCOMPARE(::stat(QFile::encodeName(beside).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0600));
        if (openToOthers)
            QVERIFY(!QFileInfo::exists(runtime + u"/Veldspar"_s));
        QVERIFY(service.stops());
        QVERIFY(!QFileInfo::exists(beside));
    }

    // One service per configuration: a second one says which process runs it and ends, and takes
    // nothing of the first one's with it.
    void aSecondServiceOnTheSameConfigurationNamesTheFirstAndStops()
    {
        RadioSim radio({u"--serial"_s, u"LK-1"_s});
        QVERIFY(radio.listening());
        const QString runtime = path(u"lock-runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        const RuntimeFolder folder(runtime);
        const QString config = path(u"lock/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"LK-1"_s)}, 500));
        const QString stateFile = runtime + u"/Veldspar/state.json"_s;
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService first(config, {listener.destination()});
        const qint64 firstPid = first.process().processId();
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"LK-1"_s).value(u"state"_s).toString(), u"announced"_s, 5000);

        {
            RunningService second(config, {listener.destination()});
            QVERIFY2(second.process().waitForFinished(5000), qPrintable(second.log()));
            QCOMPARE(second.process().exitStatus(), QProcess::NormalExit);
            QVERIFY(second.process().exitCode() != 0);
            QCOMPARE(second.log(), u"Another Veldspar service (process %1) already runs with the configuration %2 (it "
                                   u"holds %2.lock). This one stops: one service per configuration, so that each radio "
                                   u"is announced once.\n"_s.arg(QString::number(firstPid), config));
        }
        // The first one's file is still there, still its own, and still kept current.
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), firstPid);
        QCOMPARE(radio.connections(), 1);
        radio.tell("join-handle 0x7022E1CF SmartSDR-Win OFFICE-WIN");
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"LK-1"_s).value(u"guiClients"_s).toArray().size(), 1, 5000);
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), firstPid);
        // Beacons from the first one only: one a beat.
        const qint64 since = clock.elapsed();
        QTest::qWait(2000);
        QVERIFY2(listener.from(u"LK-1"_s, since).size() <= 5, qPrintable(QString::number(listener.from(u"LK-1"_s, since).size())));
        // For people who look: the lock file holds the pid of its holder.
        QCOMPARE(readFile(config + u".lock"_s), QByteArray::number(firstPid) + '\n');

        // Once the first one has stopped, the configuration is free for another.
        QVERIFY(first.stops());
        RunningService next(config, {listener.destination()});
        QTRY_COMPARE_WITH_TIMEOUT(liveRadio(stateAt(stateFile), u"LK-1"_s).value(u"state"_s).toString(), u"announced"_s, 5000);
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), next.process().processId());
    }

    // A configuration folder the service cannot write to still serves; only a second service
    // would go unnoticed, and the log says so.
    void aConfigurationInAReadOnlyFolderIsServedWithoutTheLock()
    {
        RadioSim radio({u"--serial"_s, u"RO-1"_s});
        QVERIFY(radio.listening());
        const QString config = path(u"read-only-config/config.json"_s);
        writeInPlace(config, configuration({radioEntry(radio.address(), u"RO-1"_s)}, 500));
        const QString folder = QFileInfo(config).absolutePath();
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner));
        QElapsedTimer clock;
        clock.start();
        BeaconListener listener(clock);
        RunningService service(config, {listener.destination()}, withoutRootPowers);
        QTRY_VERIFY_WITH_TIMEOUT(!listener.from(u"RO-1"_s).isEmpty(), 5000);
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY2(service.log().contains(u"Cannot take the lock %1.lock (Permission denied): a second service on the "
                                        u"configuration %1 would not be noticed."_s.arg(config)),
                 qPrintable(service.log()));
        QVERIFY(!QFileInfo::exists(config + u".lock"_s));
    }

    // A write that fails is tried again until it lands, and said once.
    void theStateFileIsWrittenOnceItsFolderTakesItAgain()
    {
        const QString runtime = path(u"blocked-runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        const RuntimeFolder folder(runtime);
        const QString ownFolder = runtime + u"/Veldspar"_s;
        QVERIFY(QDir().mkpath(ownFolder));
        QVERIFY(QFile::setPermissions(ownFolder, QFile::ReadOwner | QFile::ExeOwner));
        const QString config = path(u"blocked/config.json"_s);
        writeInPlace(config, configuration({}, 1000)); // nothing ever changes
        RunningService service(config, {u"127.0.0.1:9"_s}, withoutRootPowers);
        const QString stateFile = ownFolder + u"/state.json"_s;
        const QString cannot = u"Cannot write the state file %1: Permission denied; trying again until it can be written."_s.arg(stateFile);
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(cannot), 5000);
        QTest::qWait(4000); // tried again meanwhile
        QCOMPARE(service.log().count(cannot), 1);
        QVERIFY(!QFileInfo::exists(stateFile));

        QVERIFY(QFile::setPermissions(ownFolder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QTRY_VERIFY_WITH_TIMEOUT(stateAt(stateFile).has_value(), 6000);
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), service.process().processId());
        // The line reaches the test through a pipe, perhaps just after the file.
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"The state file %1 is written again."_s.arg(stateFile)), 2000);
    }

    // Someone removes the file, or its folder: it is back within a few seconds.
    void aRemovedStateFileIsWrittenAgain()
    {
        const QString runtime = path(u"removed-runtime"_s);
        QVERIFY(makePrivateFolder(runtime));
        const RuntimeFolder folder(runtime);
        const QString config = path(u"removed/config.json"_s);
        writeInPlace(config, configuration({}, 1000)); // nothing ever changes
        RunningService service(config, {u"127.0.0.1:9"_s});
        const QString stateFile = runtime + u"/Veldspar/state.json"_s;
        QTRY_VERIFY_WITH_TIMEOUT(stateAt(stateFile).has_value(), 5000);

        QVERIFY(QFile::remove(stateFile));
        QTRY_VERIFY_WITH_TIMEOUT(stateAt(stateFile).has_value(), 5000);
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), service.process().processId());

        QVERIFY(QDir(runtime + u"/Veldspar"_s).removeRecursively());
        QTRY_VERIFY_WITH_TIMEOUT(stateAt(stateFile).has_value(), 5000);
        QCOMPARE(stateAt(stateFile)->value(u"pid"_s).toInteger(), service.process().processId());
        struct stat info{};
        QCOMPARE(::stat(QFile::encodeName(runtime + u"/Veldspar"_s).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0700));
        QVERIFY(service.stops());
        QVERIFY(!QFileInfo::exists(stateFile));
    }
};

QTEST_MAIN(DaemonTest)
#include "tst_daemon.moc"
