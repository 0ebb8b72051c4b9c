#pragma once

#include "daemon/Endpoint.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QSet>
#include <QString>
#include <QUdpSocket>

struct Destination
{
    QHostAddress address;
    quint16 port = radioPort;

    QString text() const;
    friend bool operator==(const Destination &, const Destination &) = default;
};

// Every up, broadcast-capable, non-loopback IPv4 interface's directed broadcast address, and
// the limited broadcast 255.255.255.255, all on port 4992.
QList<Destination> automaticDestinations();

// Sends every beacon to the same destinations from one UDP socket. A destination that cannot
// be reached is logged when it starts and when it stops failing, not at each beacon.
class BeaconSender
{
public:
    // fixed: the destinations given on the command line; when empty, automaticDestinations(),
    // looked up again at each refresh().
    explicit BeaconSender(const QList<Destination> &fixed);

    void refresh();
    void send(const QByteArray &packet);
    const QList<Destination> &destinations() const { return m_destinations; }

private:
    bool m_automatic;
    QList<Destination> m_destinations;
    QUdpSocket m_socket;
    QSet<QString> m_failing;
};
