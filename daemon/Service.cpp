#include "daemon/Service.h"

#include "daemon/Log.h"
#include "daemon/ServiceLock.h"
#include "daemon/StopSignals.h"
#include "platform/ConfigurationLimit.h"
#include "platform/RegularFile.h"

#include <QCoreApplication>
#include <QDir>

#include <csignal>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>

using namespace Qt::StringLiterals;

Service::Service(const ServiceSettings &settings, QObject *parent)
    : QObject(parent), m_settings(settings), m_sender(settings.destinations),
      // A laptop joins another network, a VPN comes up: beacons follow at the next beat.
      m_interfaces([this] { m_sender.refresh(); }), m_watcher(settings.configPath, [this] { reload(); }),
      m_stateFile(stateFilePath(settings.configPath), [this] { return liveStates(); })
{
    reload();
}

Service::~Service() { qDeleteAll(m_watches); }

QList<RadioLiveState> Service::liveStates() const
{
    QList<RadioLiveState> states;
    for (const QString &key : m_order)
        if (const RadioWatch *watch = m_watches.value(key))
            states << watch->liveState();
    return states;
}

void Service::note(const QString &line)
{
    // A file that stays broken or missing is reported once, not at every look.
    if (line == m_lastNote)
        return;
    m_lastNote = line;
    logLine(line);
}

void Service::reload()
{
    const QString path = QDir::toNativeSeparators(m_settings.configPath);
    // Bounded: a FIFO or a huge file in its place must neither block the service nor exhaust it.
    const FileContents file = readRegularFile(m_settings.configPath, largestConfigurationFile);
    if (file.problem == FileContents::Problem::Missing) {
        m_seen.reset();
        note(m_loaded ? u"The configuration %1 is gone; keeping the previous one."_s.arg(path)
                      : u"No configuration at %1 yet; nothing is announced until it appears."_s.arg(path));
        return;
    }
    if (file.problem == FileContents::Problem::Unreadable) {
        m_seen.reset();
        note(u"Cannot read the configuration %1: %2; %3"_s.arg(
            path, file.reason, m_loaded ? u"keeping the previous one."_s : u"nothing is announced."_s));
        return;
    }
    if (file.problem != FileContents::Problem::None) {
        m_seen.reset();
        note(m_loaded ? u"Keeping the previous configuration: %1"_s.arg(file.message)
                      : u"Cannot use the configuration; nothing is announced until it is fixed. %1"_s.arg(file.message));
        return;
    }
    const QByteArray &bytes = file.bytes;
    if (m_seen == bytes)
        return;
    m_seen = bytes;
    const auto checked = readConfiguration(bytes);
    if (const QString *problem = std::get_if<QString>(&checked)) {
        note(m_loaded ? u"Keeping the previous configuration: %1 is not usable. %2"_s.arg(path, *problem)
                      : u"Cannot use the configuration %1; nothing is announced until it is fixed. %2"_s.arg(path, *problem));
        return;
    }
    m_lastNote.clear();
    apply(std::get<Configuration>(checked));
    m_loaded = true;
}

void Service::apply(const Configuration &configuration)
{
    QList<ConfiguredRadio> enabled;
    QStringList keys;
    for (const ConfiguredRadio &radio : configuration.radios) {
        if (radio.enabled && !keys.contains(radioKey(radio))) {
            enabled << radio;
            keys << radioKey(radio);
        }
    }
    for (auto it = m_watches.begin(); it != m_watches.end();) {
        if (keys.contains(it.key())) {
            ++it;
            continue;
        }
        if (it.value()->announced())
            logLine(u"%1 is no longer enabled in the configuration; no longer announced."_s.arg(it.value()->label()));
        delete it.value();
        it = m_watches.erase(it);
    }
    logLine(u"Configuration loaded: %1 of %2 radios enabled; beacons every %3 ms."_s.arg(
        QString::number(enabled.size()), QString::number(configuration.radios.size()),
        QString::number(beatFor(configuration.broadcastIntervalMs))));
    for (const ConfiguredRadio &radio : std::as_const(enabled)) {
        if (RadioWatch *watch = m_watches.value(radioKey(radio))) {
            watch->update(radio);
            watch->setBroadcastInterval(configuration.broadcastIntervalMs);
        } else {
            m_watches.insert(radioKey(radio), new RadioWatch(radio, configuration.broadcastIntervalMs,
                                                          m_settings.keepAliveMs, m_sender, m_claims,
                                                          [this] { m_stateFile.changed(); }));
        }
    }
    // Of two radios with one serial, the first in the configuration is announced.
    for (qsizetype i = 0; i < keys.size(); ++i)
        m_watches.value(keys.at(i))->setRank(int(i));
    m_order = keys;
    m_stateFile.changed();
}

namespace {
// systemd gives a user service a soft limit of 1,024 open files and a much higher hard one;
// each radio holds a connection, so take what is allowed.
void allowAllOpenFiles()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}
} // namespace

int runService(const ServiceSettings &settings)
{
    // Before anything a second service would do twice: beacons, connections to the radios, the
    // state file. Standard error is the journal under systemd, so the reason lands there; the
    // unit's restarts try again a few times, in case the other one was on its way out.
    const ServiceLock lock(settings.configPath);
    if (lock.outcome() == ServiceLock::Outcome::HeldElsewhere) {
        logLine(lock.message());
        return 1;
    }
    if (lock.outcome() == ServiceLock::Outcome::Unavailable)
        logLine(lock.message());
    // First, while files can still be opened: a service that cannot be stopped cleanly is
    // worse than one that serves fewer radios.
    StopSignals stopSignals([](int signal) {
        logLine(signal == SIGTERM ? u"Stopping (SIGTERM)."_s : u"Stopping (SIGINT)."_s);
        // Without NOTIFY_SOCKET (not under systemd) these messages go nowhere.
        sd_notify(0, "STOPPING=1");
        QCoreApplication::quit();
    });
    allowAllOpenFiles();
    logLine(u"Veldspar service started with the configuration %1."_s.arg(QDir::toNativeSeparators(settings.configPath)));
    Service service(settings);
    // The configuration is read and the sockets are open: only now does "systemctl start" (and
    // so "enable") return, and a service that dies before this fails the start.
    sd_notify(0, "READY=1");
    return QCoreApplication::exec();
}
