#pragma once

#include "daemon/Beacon.h"
#include "daemon/BeaconSender.h"
#include "daemon/Configuration.h"
#include "daemon/Endpoint.h"
#include "daemon/FailureReport.h"
#include "daemon/LiveState.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>

class BeaconSender;
class RadioLink;
class SerialClaims;

// Beacons are never further apart than a radio's own beat allows: some listeners forget a
// radio after 2.5 to 5 seconds of silence.
inline constexpr int longestBeatMs = 2000;
inline int beatFor(int broadcastIntervalMs) { return broadcastIntervalMs < longestBeatMs ? broadcastIntervalMs : longestBeatMs; }
// How often a radio on a held connection must answer; one missed answer loses it.
inline constexpr int defaultKeepAliveMs = 2000;

// One enabled radio: holds a command connection to it and, while the radio answers, sends
// its beacon at the beat with the radio's live state. A lost radio is tried again after a
// pause that grows to a few seconds. Logs when it starts and stops being announced, never per
// beacon, and a radio that keeps failing once per spell and reason (FailureReport), never per
// attempt. Radios share the process's file descriptors: a radio that finds none free waits for
// one, and the shortage is logged once for all. A radio counts as announced only while its
// beacon goes out; one that answers with the serial of a radio before it in the configuration
// is held back, and that is logged once.
class RadioWatch : public QObject
{
public:
    // changed: called whenever what liveState() says, apart from the time of the last beacon,
    // may have changed.
    RadioWatch(const ConfiguredRadio &radio, int broadcastIntervalMs, int keepAliveMs, BeaconSender &sender,
               SerialClaims &claims, std::function<void()> changed, QObject *parent = nullptr);
    ~RadioWatch() override;

    // Identity fields of the same radio changed in the configuration.
    void update(const ConfiguredRadio &radio) { m_radio = radio; }
    void setBroadcastInterval(int milliseconds);
    // Its place in the configuration's order.
    void setRank(int rank) { m_rank = rank; }
    bool announced() const { return m_announced; }
    QString label() const;
    RadioLiveState liveState() const { return m_live; }

private:
    void connectToRadio();
    void ready();
    void lost(const QString &why);
    void held();
    void starved(); // no file descriptor for a connection: wait for one, without a line per radio
    void dropLink();
    void sendBeacon();
    bool claimSerial(const QString &serial);
    void noteSent(const BeaconSent &sent);
    void noteWhere(const QString &where);
    void noteClients(const QList<BeaconField> &fields);
    void enterPhase(RadioLiveState::Phase phase, const QString &reason = QString());

    ConfiguredRadio m_radio;
    Endpoint m_endpoint;
    BeaconSender &m_sender;
    SerialClaims &m_claims;
    int m_rank = 0;
    int m_keepAliveMs;
    RadioLink *m_link = nullptr;
    QTimer m_retryTimer;
    QTimer m_beaconTimer;
    QTimer m_holdTimer; // a connection that lasts stableConnectionMs
    int m_retryMs;
    QElapsedTimer m_readySince;
    bool m_announced = false;
    FailureReport m_report;
    QString m_serialConflict; // as last logged, so that a radio that keeps returning says it once
    QString m_name;        // as the radio last named itself
    QString m_where;       // where its beacons went, as last logged
    QString m_heldBackBy;  // the radio before it that announces its serial, as last logged
    unsigned m_packetCount = 0;
    std::function<void()> m_changed;
    RadioLiveState m_live;
};
