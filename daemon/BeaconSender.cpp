#include "daemon/BeaconSender.h"

#include "daemon/Log.h"

#include <QNetworkDatagram>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace {
// 127.0.0.0/8 is always the loopback's, and its broadcast reaches every socket bound to the
// port on this computer, once.
const Outlet loopbackOutlet{{QHostAddress(u"127.255.255.255"_s), radioPort}, 0, u"lo"_s};

QStringList texts(const QList<Outlet> &outlets)
{
    QStringList texts;
    for (const Outlet &outlet : outlets)
        texts << outlet.text();
    return texts;
}
} // namespace

QString Destination::text() const { return address.toString() + u':' + QString::number(port); }

QString Outlet::text() const
{
    return interfaceIndex == 0 ? destination.text() : destination.text() + u" on "_s + interfaceName;
}

QList<Outlet> outletsFor(const QList<LocalNetwork> &networks, const QHostAddress &radio)
{
    if (networks.isEmpty())
        return {loopbackOutlet};
    QList<Outlet> outlets;
    for (const LocalNetwork &network : networks)
        if (!network.holds(radio))
            outlets.append({{QHostAddress(QHostAddress::Broadcast), radioPort}, network.interfaceIndex, network.interfaceName});
    return outlets;
}

BeaconSender::BeaconSender(const QList<Destination> &fixed) : m_automatic(fixed.isEmpty())
{
    for (const Destination &destination : fixed)
        m_fixed.append({destination, 0, {}});
    if (!m_automatic)
        logLine(u"Beacons go to %1."_s.arg(texts(m_fixed).join(u", "_s)));
    // The socket is taken now, before the radios' connections can use up every descriptor.
    if (!m_socket.bind(QHostAddress(QHostAddress::AnyIPv4), 0))
        logLine(u"Cannot open the socket for beacons: %1."_s.arg(m_socket.errorString()));
    refresh();
}

void BeaconSender::refresh()
{
    if (m_automatic)
        m_networks = localNetworks();
}

QString BeaconSender::send(const QByteArray &packet, const QHostAddress &radio)
{
    const QList<Outlet> outlets = m_automatic ? outletsFor(m_networks, radio) : m_fixed;
    for (const Outlet &outlet : outlets)
        sendOut(packet, outlet);
    return m_automatic ? whereAnnounced(outlets) : QString();
}

void BeaconSender::sendOut(const QByteArray &packet, const Outlet &outlet)
{
    QNetworkDatagram datagram(packet, outlet.destination.address, outlet.destination.port);
    // Qt passes the index with IP_PKTINFO: the broadcast leaves by that interface even where
    // the routing table would send it into a VPN's tunnel.
    datagram.setInterfaceIndex(uint(outlet.interfaceIndex));
    const QString key = outlet.text();
    const bool sent = m_socket.writeDatagram(datagram) == packet.size();
    if (!sent && !m_failing.contains(key)) {
        m_failing.insert(key);
        logLine(u"Cannot send beacons to %1: %2."_s.arg(key, m_socket.errorString()));
    } else if (sent && m_failing.remove(key)) {
        logLine(u"Beacons reach %1 again."_s.arg(key));
    }
}

QString BeaconSender::whereAnnounced(const QList<Outlet> &outlets) const
{
    if (outlets == QList<Outlet>{loopbackOutlet})
        return u"is announced on this computer only (loopback)."_s;
    QStringList names;
    for (const Outlet &outlet : outlets)
        names << outlet.interfaceName;
    if (!names.isEmpty())
        return u"is announced on %1."_s.arg(names.join(u", "_s));
    for (const LocalNetwork &network : m_networks)
        names << network.interfaceName;
    return u"is not announced: it is on the network of %1 and announces itself there."_s.arg(names.join(u", "_s));
}
