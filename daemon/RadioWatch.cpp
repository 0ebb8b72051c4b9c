#include "daemon/RadioWatch.h"

#include "daemon/Beacon.h"
#include "daemon/BeaconFields.h"
#include "daemon/BeaconSender.h"
#include "daemon/Log.h"
#include "daemon/RadioLink.h"
#include "daemon/SerialClaims.h"

#include <QDateTime>

#include <algorithm>
#include <climits>
#include <sys/resource.h>

using namespace Qt::StringLiterals;

namespace {
// A radio that comes back is announced again within five seconds: the pause before the next
// attempt grows from one second but never beyond four.
constexpr int firstRetryMs = 1000;
constexpr int longestRetryMs = 4000;

// Every held connection is an open file. The process keeps some for itself (the configuration,
// the beacon socket, the stop signals, Qt's own), so radios get at most the limit less these;
// the others wait for a free one instead of leaving the service without any.
constexpr rlim_t reservedFiles = 64;
int openLinks = 0; // of every radio: the limit is the process's

rlim_t openFileLimit()
{
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

int linkBudget()
{
    static const int budget = [] {
        const rlim_t limit = openFileLimit();
        if (limit == RLIM_INFINITY || limit > rlim_t(INT_MAX))
            return INT_MAX;
        return int(std::max<rlim_t>(limit, reservedFiles + 1) - reservedFiles);
    }();
    return budget;
}

// Once for the whole run: with thousands of radios, a line per radio and attempt would bury
// everything else in the log.
void reportShortage()
{
    static bool reported = false;
    if (reported)
        return;
    reported = true;
    logLine(u"Out of file descriptors: this process may have %1 files open, too few for a connection to every "
            u"radio. Radios without one are tried again as connections free up and are not announced meanwhile; "
            u"raise LimitNOFILE in the service's unit to serve them all."_s.arg(QString::number(openFileLimit())));
}
} // namespace

RadioWatch::RadioWatch(const ConfiguredRadio &radio, int broadcastIntervalMs, int keepAliveMs, BeaconSender &sender,
                       SerialClaims &claims, std::function<void()> changed, QObject *parent)
    : QObject(parent), m_radio(radio), m_endpoint(parseEndpoint(radio.ipAddress).value_or(Endpoint{radio.ipAddress})),
      m_sender(sender), m_claims(claims), m_keepAliveMs(keepAliveMs), m_retryMs(firstRetryMs), m_name(radio.name),
      m_changed(std::move(changed))
{
    m_live.serialNumber = radio.serialNumber;
    m_live.ipAddress = radio.ipAddress;
    m_live.name = m_name;
    m_live.since = QDateTime::currentDateTimeUtc();
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &RadioWatch::connectToRadio);
    // Listeners time radios out after a few seconds; keep the beat steady.
    m_beaconTimer.setTimerType(Qt::PreciseTimer);
    m_beaconTimer.setInterval(beatFor(broadcastIntervalMs));
    connect(&m_beaconTimer, &QTimer::timeout, this, &RadioWatch::sendBeacon);
    m_holdTimer.setSingleShot(true);
    m_holdTimer.setInterval(stableConnectionMs);
    connect(&m_holdTimer, &QTimer::timeout, this, &RadioWatch::held);
    connectToRadio();
}

RadioWatch::~RadioWatch()
{
    m_claims.release(radioKey(m_radio));
    m_sender.forget(radioKey(m_radio));
    if (m_link)
        --openLinks;
    delete m_link;
}

QString RadioWatch::label() const
{
    return m_name.isEmpty() ? u"The radio at %1"_s.arg(m_radio.ipAddress) : u"Radio %1 at %2"_s.arg(m_name, m_radio.ipAddress);
}

void RadioWatch::enterPhase(RadioLiveState::Phase phase, const QString &reason)
{
    if (phase != m_live.phase)
        m_live.since = QDateTime::currentDateTimeUtc();
    m_live.phase = phase;
    m_live.reason = reason;
    m_live.name = m_name;
    if (phase != RadioLiveState::Phase::Announced) {
        m_live.status.clear();
        m_live.licensedClients = 0;
        m_live.guiClients.clear();
    }
    m_changed();
}

void RadioWatch::setBroadcastInterval(int milliseconds)
{
    if (m_beaconTimer.interval() != beatFor(milliseconds))
        m_beaconTimer.setInterval(beatFor(milliseconds)); // restarts a running timer
}

void RadioWatch::connectToRadio()
{
    if (openLinks >= linkBudget())
        return starved();
    ++openLinks;
    m_link = new RadioLink(m_endpoint, m_keepAliveMs,
                           {[this] { ready(); }, [this](const QString &why) { lost(why); }, [this] { starved(); }}, this);
    m_link->start();
}

void RadioWatch::dropLink()
{
    if (!m_link)
        return;
    --openLinks;
    m_link->deleteLater();
    m_link = nullptr;
}

void RadioWatch::starved()
{
    dropLink();
    m_claims.release(radioKey(m_radio));
    reportShortage();
    if (m_live.phase != RadioLiveState::Phase::NotAnswering || m_live.reason != u"no connection is free in the service"_s)
        enterPhase(RadioLiveState::Phase::NotAnswering, u"no connection is free in the service"_s);
    m_retryTimer.start(m_retryMs);
    m_retryMs = std::min(m_retryMs * 2, longestRetryMs);
}

void RadioWatch::ready()
{
    const RadioState &state = m_link->state();
    if (!state.nickname.isEmpty())
        m_name = state.nickname;
    if (announcedSerial(state, m_radio).isEmpty())
        return lost(u"it did not report its serial number"_s);
    const QString configured = knownSerial(m_radio);
    if (!state.identity.serial.isEmpty() && !configured.isEmpty() && configured != state.identity.serial) {
        const QString conflict = u"%1 reports the serial number %2, but the configuration says %3; announcing the radio's own."_s.arg(
            label(), state.identity.serial, configured);
        if (conflict != m_serialConflict)
            logLine(conflict);
        m_serialConflict = conflict;
    }
    m_readySince.start();
    m_holdTimer.start();
    m_announced = true;
    if (m_report.answered(label(), m_beaconTimer.interval()))
        m_where.clear(); // said again for a radio that returns, perhaps at another address
    sendBeacon();
    m_beaconTimer.start();
}

void RadioWatch::held()
{
    if (m_report.held(label(), m_beaconTimer.interval()))
        m_where.clear();
}

void RadioWatch::lost(const QString &why)
{
    dropLink();
    m_holdTimer.stop();
    m_claims.release(radioKey(m_radio));
    m_heldBackBy.clear();
    const bool wasAnnounced = m_announced;
    const qint64 heldMs = m_readySince.isValid() ? m_readySince.elapsed() : 0;
    if (m_announced) {
        m_announced = false;
        m_beaconTimer.stop();
    }
    m_report.failed(label(), why, wasAnnounced, heldMs);
    enterPhase(RadioLiveState::Phase::NotAnswering, why);
    if (heldMs >= stableConnectionMs)
        m_retryMs = firstRetryMs;
    m_readySince.invalidate();
    m_retryTimer.start(m_retryMs);
    m_retryMs = std::min(m_retryMs * 2, longestRetryMs);
}

void RadioWatch::sendBeacon()
{
    if (!m_link || !m_link->isReady())
        return;
    if (!claimSerial(announcedSerial(m_link->state(), m_radio)))
        return;
    const QList<BeaconField> fields = beaconFields(m_link->state(), m_radio, m_link->peer().toString(), m_endpoint.port);
    const BeaconSent sent = m_sender.send(
        beaconPacket(beaconPayload(fields), m_packetCount++, quint32(QDateTime::currentSecsSinceEpoch())), m_link->peer(),
        {radioKey(m_radio), label()});
    noteWhere(sent.where);
    noteSent(sent);
    if (sent.sent)
        noteClients(fields);
}

// Listeners keep one radio per serial: a radio before this one in the configuration that
// announces the same serial holds this one back. Logged when that starts and ends.
bool RadioWatch::claimSerial(const QString &serial)
{
    const std::optional<QString> holder = m_claims.claim(serial, radioKey(m_radio), m_rank, label());
    if (!holder) {
        if (!m_heldBackBy.isEmpty())
            logLine(u"%1 is announced again: no radio before it in the configuration announces the serial number %2 now."_s.arg(
                label(), serial));
        m_heldBackBy.clear();
        return true;
    }
    if (*holder != m_heldBackBy) {
        m_heldBackBy = *holder;
        logLine(u"%1 reports the serial number %2, as %3 does, which comes first in the configuration; only that one is "
                u"announced, since listeners keep one radio per serial number."_s.arg(label(), serial, *holder));
        enterPhase(RadioLiveState::Phase::NotAnnounced,
                   u"%1 has the same serial number %2 and comes first in the configuration"_s.arg(*holder, serial));
    }
    return false;
}

// Announced only while the beacon goes out: a beacon that went nowhere says why.
void RadioWatch::noteSent(const BeaconSent &sent)
{
    if (!sent.sent) {
        const QString reason = u"its beacon cannot be sent (%1)"_s.arg(sent.problem);
        if (m_live.phase != RadioLiveState::Phase::NotAnnounced || m_live.reason != reason)
            enterPhase(RadioLiveState::Phase::NotAnnounced, reason);
        return;
    }
    m_live.lastBeacon = QDateTime::currentDateTimeUtc();
    if (m_live.phase != RadioLiveState::Phase::Announced)
        enterPhase(RadioLiveState::Phase::Announced);
}

// Where the radio is announced changes with the interfaces: logged when it does, not per beat.
void RadioWatch::noteWhere(const QString &where)
{
    if (where == m_where)
        return;
    m_where = where;
    if (!where.isEmpty())
        logLine(label() + u' ' + where);
}

// The beacon is what listeners see: the state file says the same of the radio's clients.
void RadioWatch::noteClients(const QList<BeaconField> &fields)
{
    const auto value = [&fields](const QString &key) {
        for (const BeaconField &field : fields)
            if (field.first == key)
                return field.second;
        return QString();
    };
    QList<LiveClient> clients;
    for (const GuiClient &client : m_link->state().guiClients)
        clients.append({client.program, client.station});
    const QString status = value(u"status"_s);
    const int licensed = value(u"licensed_clients"_s).toInt();
    if (status == m_live.status && licensed == m_live.licensedClients && clients == m_live.guiClients
        && m_name == m_live.name)
        return;
    m_live.status = status;
    m_live.licensedClients = licensed;
    m_live.guiClients = clients;
    m_live.name = m_name;
    m_changed();
}
