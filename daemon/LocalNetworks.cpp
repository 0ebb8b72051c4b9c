#include "daemon/LocalNetworks.h"

#include <QNetworkInterface>

#include <algorithm>

namespace {
// A /31 or /32 has no broadcast address: such a link reaches one peer, not a LAN.
constexpr int longestBroadcastPrefix = 30;

bool isLan(const QNetworkInterface &interface)
{
    const auto flags = interface.flags();
    return flags.testFlag(QNetworkInterface::IsUp) && flags.testFlag(QNetworkInterface::IsRunning)
           && flags.testFlag(QNetworkInterface::CanBroadcast) && !flags.testFlag(QNetworkInterface::IsLoopBack)
           && !flags.testFlag(QNetworkInterface::IsPointToPoint);
}
} // namespace

bool LocalNetwork::holds(const QHostAddress &address) const
{
    return std::any_of(subnets.begin(), subnets.end(),
                       [&address](const auto &subnet) { return address.isInSubnet(subnet.first, subnet.second); });
}

QList<LocalNetwork> localNetworks()
{
    QList<LocalNetwork> networks;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (!isLan(interface))
            continue;
        LocalNetwork network{interface.name(), interface.index(), {}};
        bool broadcastSubnet = false;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol || entry.prefixLength() < 0)
                continue;
            network.subnets.append({entry.ip(), entry.prefixLength()});
            broadcastSubnet = broadcastSubnet || entry.prefixLength() <= longestBroadcastPrefix;
        }
        if (broadcastSubnet)
            networks.append(network);
    }
    return networks;
}
