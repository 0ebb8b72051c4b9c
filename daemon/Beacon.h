#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <utility>

// The discovery beacon that radios broadcast: a VITA-49 extension data packet with stream id
// 0x800 and the maker's class id, whose payload is space-separated key=value text.

using BeaconField = std::pair<QString, QString>;

// "key=value key=value …" in the order given; spaces inside values become the byte 0x7F, as
// radios send them, because listeners split the text at spaces.
QByteArray beaconPayload(const QList<BeaconField> &fields);

// The whole packet: header (packet count modulo 16, size in 32-bit words), stream id, class
// id, integer timestamp (UTC seconds), zero fractional timestamp, then the payload padded
// with zero bytes to a word boundary. All words big-endian.
QByteArray beaconPacket(const QByteArray &payload, unsigned packetCount, quint32 utcSeconds);
