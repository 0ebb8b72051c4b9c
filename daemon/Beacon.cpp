#include "daemon/Beacon.h"

#include <QtEndian>

namespace {
constexpr quint32 packetTypeExtensionDataWithStreamId = 3;
constexpr quint32 timestampIntegerUtc = 1;
constexpr quint32 timestampFractionalSampleCount = 1;
constexpr quint32 discoveryStreamId = 0x00000800;
constexpr quint32 makerOui = 0x001C2D;
constexpr quint32 informationClassCode = 0x534C;
constexpr quint32 discoveryPacketClassCode = 0xFFFF;
constexpr int headerWords = 7;

void appendWord(QByteArray &packet, quint32 word)
{
    char bytes[4];
    qToBigEndian(word, bytes);
    packet.append(bytes, 4);
}
} // namespace

QByteArray beaconPayload(const QList<BeaconField> &fields)
{
    QByteArray payload;
    for (const BeaconField &field : fields) {
        if (!payload.isEmpty())
            payload += ' ';
        payload += field.first.toUtf8() + '=' + field.second.toUtf8().replace(' ', '\x7f');
    }
    return payload;
}

QByteArray beaconPacket(const QByteArray &payload, unsigned packetCount, quint32 utcSeconds)
{
    const qsizetype payloadWords = (payload.size() + 3) / 4;
    const quint32 sizeWords = quint32(headerWords + payloadWords);
    const quint32 header = packetTypeExtensionDataWithStreamId << 28 | 1u << 27 /* class id present */
                           | timestampIntegerUtc << 22 | timestampFractionalSampleCount << 20
                           | (packetCount & 0xF) << 16 | (sizeWords & 0xFFFF);
    QByteArray packet;
    packet.reserve(qsizetype(sizeWords) * 4);
    appendWord(packet, header);
    appendWord(packet, discoveryStreamId);
    appendWord(packet, makerOui);
    appendWord(packet, informationClassCode << 16 | discoveryPacketClassCode);
    appendWord(packet, utcSeconds);
    appendWord(packet, 0); // fractional timestamp, high word
    appendWord(packet, 0); // and low word
    packet += payload;
    packet.append(qsizetype(sizeWords) * 4 - packet.size(), '\0');
    return packet;
}
