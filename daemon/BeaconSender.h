#pragma once

#include "daemon/Endpoint.h"
#include "daemon/LocalNetworks.h"

#include <QByteArray>
#include <QHash>
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

// One way out for a beacon: a destination, and the interface it leaves by whatever the
// routing table says (index 0: where the routing table sends it).
struct Outlet
{
    Destination destination;
    int interfaceIndex = 0;
    QString interfaceName;

    QString text() const; // "255.255.255.255:4992 on eth0"
    friend bool operator==(const Outlet &, const Outlet &) = default;
};

// Where the beacon of a radio reached at `radio` goes, as the radio itself would send it on
// each local network: once, to the limited broadcast 255.255.255.255:4992 out of that
// network's interface. Not on a network the radio is on (a tap link to its site, or a radio
// on this LAN after all): it announces itself there. Linux hands a broadcast sent out an
// interface to this computer's own listeners as well; with no local network at all, the
// loopback's broadcast reaches them instead.
QList<Outlet> outletsFor(const QList<LocalNetwork> &networks, const QHostAddress &radio);

// What became of one beacon.
struct BeaconSent
{
    bool sent = false; // out by at least one outlet, or there was none it had to take
    QString where;     // see BeaconSender::send()
    QString problem;   // when it went out nowhere: why, in the socket's words
};

// The radio whose beacon it is, as the log names it; key stays the same while its label changes.
struct BeaconSource
{
    QString key;
    QString label;
};

// Sends beacons from one UDP socket on a port of the system's choosing, so that every
// listener on this computer can still bind port 4992. An outlet that fails for a radio is
// logged when it starts and when it stops failing, for each radio and outlet on its own (one
// radio's failure says nothing of another's), not at each beacon.
class BeaconSender
{
public:
    // fixed: the destinations given on the command line, the same for every radio; when
    // empty, outletsFor() on the local networks as refresh() last found them.
    explicit BeaconSender(const QList<Destination> &fixed);

    // Reads the local networks again (the interfaces changed).
    void refresh();
    // Sends one beacon of the radio reached at `radio`. Says where it went, in words that
    // follow the radio's name in the log ("is announced on eth0, wlan0."); nothing with fixed
    // destinations, which are logged once for every radio.
    BeaconSent send(const QByteArray &packet, const QHostAddress &radio, const BeaconSource &source);
    // The radio of this key sends no more beacons: its failures are forgotten.
    void forget(const QString &key) { m_failing.remove(key); }

private:
    QString sendOut(const QByteArray &packet, const Outlet &outlet, const BeaconSource &source);
    QString whereAnnounced(const QList<Outlet> &outlets) const;

    bool m_automatic;
    QList<Outlet> m_fixed;
    QList<LocalNetwork> m_networks;
    QUdpSocket m_socket;
    QHash<QString, QSet<QString>> m_failing; // the outlets failing, by radio
};
