#include "daemon/BeaconSender.h"

#include "daemon/Log.h"

#include <QNetworkInterface>
#include <QStringList>

using namespace Qt::StringLiterals;

QString Destination::text() const { return address.toString() + u':' + QString::number(port); }

QList<Destination> automaticDestinations()
{
    QList<Destination> destinations;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        const auto flags = interface.flags();
        if (!flags.testFlag(QNetworkInterface::IsUp) || !flags.testFlag(QNetworkInterface::CanBroadcast)
            || flags.testFlag(QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol || entry.broadcast().isNull())
                continue;
            const Destination destination{entry.broadcast(), radioPort};
            if (!destinations.contains(destination))
                destinations.append(destination);
        }
    }
    destinations.append({QHostAddress(QHostAddress::Broadcast), radioPort});
    return destinations;
}

BeaconSender::BeaconSender(const QList<Destination> &fixed) : m_automatic(fixed.isEmpty()), m_destinations(fixed)
{
    if (!m_automatic)
        logLine(u"Beacons go to %1."_s.arg([&] {
            QStringList texts;
            for (const Destination &destination : fixed)
                texts << destination.text();
            return texts.join(u", "_s);
        }()));
    // The socket is taken now, before the radios' connections can use up every descriptor.
    if (!m_socket.bind(QHostAddress(QHostAddress::AnyIPv4), 0))
        logLine(u"Cannot open the socket for beacons: %1."_s.arg(m_socket.errorString()));
    refresh();
}

void BeaconSender::refresh()
{
    if (!m_automatic)
        return;
    const QList<Destination> now = automaticDestinations();
    if (now == m_destinations)
        return;
    m_destinations = now;
    QStringList texts;
    for (const Destination &destination : now)
        texts << destination.text();
    logLine(u"Beacons go to %1."_s.arg(texts.join(u", "_s)));
}

void BeaconSender::send(const QByteArray &packet)
{
    for (const Destination &destination : std::as_const(m_destinations)) {
        const QString key = destination.text();
        const bool sent = m_socket.writeDatagram(packet, destination.address, destination.port) == packet.size();
        if (!sent && !m_failing.contains(key)) {
            m_failing.insert(key);
            logLine(u"Cannot send beacons to %1: %2."_s.arg(key, m_socket.errorString()));
        } else if (sent && m_failing.remove(key)) {
            logLine(u"Beacons reach %1 again."_s.arg(key));
        }
    }
}
