#pragma once

#include <QString>

#include <optional>

// The radios' command port and the port their discovery beacons go to.
inline constexpr quint16 radioPort = 4992;

// A host (IPv4 address or name) and a TCP or UDP port.
struct Endpoint
{
    QString host;
    quint16 port = radioPort;

    QString text() const; // "host:port"
};

// Reads "HOST" or "HOST:PORT". Nothing when the host is empty or the port is not a number from
// 1 to 65535.
std::optional<Endpoint> parseEndpoint(const QString &text, quint16 defaultPort = radioPort);
