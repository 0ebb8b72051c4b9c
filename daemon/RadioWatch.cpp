#include "daemon/RadioWatch.h"

#include "daemon/Beacon.h"
#include "daemon/BeaconSender.h"
#include "daemon/Log.h"
#include "daemon/RadioConnection.h"

#include <QDateTime>

using namespace Qt::StringLiterals;

namespace {
const QString placeholderSerial = u"0000-0000-0000-0000"_s;

QString firstOf(const QString &preferred, const QString &fallback)
{
    return preferred.isEmpty() ? fallback : preferred;
}

QString reason(const ConnectionOutcome &outcome)
{
    using Kind = ConnectionFailure::Kind;
    if (!outcome.failure)
        return u"it answered \"info\" with error %1"_s.arg(codeText(outcome.replies.value(0).code));
    switch (outcome.failure->kind) {
    case Kind::UnknownHost: return u"its host name is unknown"_s;
    case Kind::Refused: return u"connection refused"_s;
    case Kind::ConnectTimeout: return u"no answer to the connection"_s;
    case Kind::Unreachable: return outcome.failure->detail;
    case Kind::NotARadio: return u"it does not answer as a radio"_s;
    case Kind::Closed: return u"it closed the connection"_s;
    case Kind::AnswerTimeout: return u"no answer to \"info\""_s;
    case Kind::Network: return outcome.failure->detail;
    }
    return {};
}
} // namespace

RadioWatch::RadioWatch(const ConfiguredRadio &radio, int broadcastIntervalMs, int checkPeriodMs, BeaconSender &sender,
                       QObject *parent)
    : QObject(parent), m_radio(radio), m_endpoint(parseEndpoint(radio.ipAddress).value_or(Endpoint{radio.ipAddress})),
      m_sender(sender), m_checkPeriodMs(checkPeriodMs)
{
    m_checkTimer.setInterval(checkPeriodMs);
    connect(&m_checkTimer, &QTimer::timeout, this, &RadioWatch::check);
    // Listeners time radios out after about 17 seconds; keep the beat steady.
    m_beaconTimer.setTimerType(Qt::PreciseTimer);
    m_beaconTimer.setInterval(broadcastIntervalMs);
    connect(&m_beaconTimer, &QTimer::timeout, this, &RadioWatch::sendBeacon);
    m_checkTimer.start();
    check();
}

RadioWatch::~RadioWatch()
{
    if (m_check)
        delete m_check.data();
}

QString RadioWatch::label() const
{
    const QString name = firstOf(m_reported.name, m_radio.name);
    return name.isEmpty() ? u"The radio at %1"_s.arg(m_radio.ipAddress)
                          : u"Radio %1 at %2"_s.arg(name, m_radio.ipAddress);
}

void RadioWatch::setBroadcastInterval(int milliseconds)
{
    if (m_beaconTimer.interval() == milliseconds)
        return;
    m_beaconTimer.setInterval(milliseconds); // restarts a running timer
}

void RadioWatch::check()
{
    if (m_check)
        return; // the previous check is still waiting for its answer
    // A check must end before the next one is due.
    const int limit = std::min(8000, m_checkPeriodMs * 8 / 10);
    const RadioConnection::Limits limits{std::min(5000, limit), limit};
    m_check = new RadioConnection(m_endpoint, {u"info"_s}, limits,
                                  [this](const ConnectionOutcome &outcome) { checked(outcome); }, this);
    m_check->start();
}

void RadioWatch::checked(const ConnectionOutcome &outcome)
{
    m_check->deleteLater();
    m_check = nullptr;
    const bool first = !m_everChecked;
    m_everChecked = true;
    if (outcome.failure || outcome.replies.value(0).code != 0) {
        if (m_answering)
            stopAnnouncing(u"it stopped answering (%1)"_s.arg(reason(outcome)));
        else if (first)
            logLine(u"%1 does not answer (%2); it is not announced until it does."_s.arg(label(), reason(outcome)));
        return;
    }
    m_reported = identityFrom(parseInfo(outcome.replies.first().message));
    m_address = outcome.peer;
    if (m_answering)
        return;
    m_answering = true;
    logLine(u"%1 answers; announcing it every %2 ms."_s.arg(label(), QString::number(m_beaconTimer.interval())));
    sendBeacon();
    m_beaconTimer.start();
}

void RadioWatch::stopAnnouncing(const QString &why)
{
    m_answering = false;
    m_beaconTimer.stop();
    logLine(u"%1: %2; no longer announced."_s.arg(label(), why));
}

void RadioWatch::sendBeacon()
{
    const QString configuredSerial = m_radio.serialNumber == placeholderSerial ? QString() : m_radio.serialNumber;
    // The radio's own answers are the freshest; the configuration fills in what they lack.
    const QList<BeaconField> fields{
        {u"discovery_protocol_version"_s, u"3.0.0.2"_s},
        {u"model"_s, firstOf(m_reported.model, m_radio.model)},
        {u"serial"_s, firstOf(configuredSerial, m_reported.serial)},
        {u"version"_s, firstOf(m_reported.version, m_radio.version)},
        {u"nickname"_s, firstOf(m_reported.name, m_radio.name)},
        {u"callsign"_s, firstOf(m_reported.callsign, m_radio.callsign)},
        {u"ip"_s, m_address.isNull() ? m_endpoint.host : m_address.toString()},
        {u"port"_s, QString::number(m_endpoint.port)},
        {u"status"_s, u"Available"_s},
        {u"inuse_ip"_s, QString()},
        {u"inuse_host"_s, QString()},
        {u"gui_client_ips"_s, QString()},
        {u"gui_client_hosts"_s, QString()},
        {u"gui_client_programs"_s, QString()},
        {u"gui_client_stations"_s, QString()},
        {u"gui_client_handles"_s, QString()},
    };
    m_sender.send(beaconPacket(beaconPayload(fields), m_packetCount++, quint32(QDateTime::currentSecsSinceEpoch())));
}
