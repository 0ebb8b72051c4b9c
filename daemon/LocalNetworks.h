#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>

#include <utility>

// A network this computer is on, where a radio would announce itself: an interface that is up
// and running, can broadcast, is neither the loopback nor point-to-point, and has an IPv4
// subnet with room for a broadcast (a prefix of 30 or shorter). VPN tunnels, and links
// addressed /31, /32 or peer to peer, lead to one other host and are no such network.
struct LocalNetwork
{
    QString interfaceName;
    int interfaceIndex = 0;
    QList<std::pair<QHostAddress, int>> subnets; // every IPv4 address of the interface, with its prefix length

    // True when the address is on one of the interface's subnets.
    bool holds(const QHostAddress &address) const;
    friend bool operator==(const LocalNetwork &, const LocalNetwork &) = default;
};

// The local networks as the system has them now, in the system's order of interfaces.
QList<LocalNetwork> localNetworks();
