#pragma once

#include "daemon/Configuration.h"
#include "daemon/Endpoint.h"
#include "daemon/RadioReplies.h"

#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QTimer>

class BeaconSender;
class RadioConnection;
struct ConnectionOutcome;

// One enabled radio: checks its command port every check period (connect and "info") and,
// while it answers, sends its beacon every broadcast interval. Logs when it starts and stops
// answering, never per beacon.
class RadioWatch : public QObject
{
public:
    RadioWatch(const ConfiguredRadio &radio, int broadcastIntervalMs, int checkPeriodMs, BeaconSender &sender,
               QObject *parent = nullptr);
    ~RadioWatch() override;

    // Identity fields of the same radio changed in the configuration.
    void update(const ConfiguredRadio &radio) { m_radio = radio; }
    void setBroadcastInterval(int milliseconds);
    bool announced() const { return m_answering; }
    QString label() const;

private:
    void check();
    void checked(const ConnectionOutcome &outcome);
    void stopAnnouncing(const QString &why);
    void sendBeacon();

    ConfiguredRadio m_radio;
    Endpoint m_endpoint;
    BeaconSender &m_sender;
    int m_checkPeriodMs;
    QTimer m_checkTimer;
    QTimer m_beaconTimer;
    QPointer<RadioConnection> m_check;
    bool m_answering = false;
    bool m_everChecked = false;
    RadioIdentity m_reported; // from the latest "info"
    QHostAddress m_address;   // where the latest check reached the radio
    unsigned m_packetCount = 0;
};
