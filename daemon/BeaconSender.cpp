#include "daemon/BeaconSender.h"

#include "daemon/Log.h"

#include <QNetworkDatagram>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace {
// The most a UDP datagram over IPv4 carries.
constexpr qsizetype largestDatagram = 65507;

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

BeaconSent BeaconSender::send(const QByteArray &packet, const QHostAddress &radio, const BeaconSource &source)
{
    const QList<Outlet> outlets = m_automatic ? outletsFor(m_networks, radio) : m_fixed;
    BeaconSent result{outlets.isEmpty(), m_automatic ? whereAnnounced(outlets) : QString(), {}};
    for (const Outlet &outlet : outlets) {
        const QString problem = sendOut(packet, outlet, source);
        if (problem.isEmpty())
            result.sent = true;
        else if (result.problem.isEmpty())
            result.problem = problem;
    }
    if (result.sent)
        result.problem.clear();
    return result;
}

// Why the beacon did not go out by the outlet; empty when it did.
QString BeaconSender::sendOut(const QByteArray &packet, const Outlet &outlet, const BeaconSource &source)
{
    QString problem;
    // Bounded texts keep every beacon far below this; should one ever grow past it, it is
    // refused here in words, not cut by the network.
    if (packet.size() > largestDatagram) {
        problem = u"the beacon is %1 bytes, more than the %2 a datagram holds"_s.arg(
            QString::number(packet.size()), QString::number(largestDatagram));
    } else {
        QNetworkDatagram datagram(packet, outlet.destination.address, outlet.destination.port);
        // Qt passes the index with IP_PKTINFO: the broadcast leaves by that interface even where
        // the routing table would send it into a VPN's tunnel.
        datagram.setInterfaceIndex(uint(outlet.interfaceIndex));
        if (m_socket.writeDatagram(datagram) != packet.size())
            problem = m_socket.errorString();
    }
    const QString where = outlet.text();
    QSet<QString> &failing = m_failing[source.key];
    if (!problem.isEmpty() && !failing.contains(where)) {
        failing.insert(where);
        logLine(u"Cannot send the beacon of %1 to %2: %3."_s.arg(source.label, where, problem));
    } else if (problem.isEmpty() && failing.remove(where)) {
        logLine(u"The beacon of %1 reaches %2 again."_s.arg(source.label, where));
    }
    if (failing.isEmpty())
        m_failing.remove(source.key);
    return problem;
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
