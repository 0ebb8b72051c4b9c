#include "Simulator.h"

#include "Output.h"

#include <QTcpSocket>
#include <QTimer>

#include <cstring>

namespace {
// Hostile faults write only while the socket holds less than this, so a reader that stops
// reading stops the flood instead of growing the simulator.
constexpr qint64 floodBacklog = 256 * 1024;
constexpr qsizetype floodChunk = 16 * 1024;
constexpr qsizetype longLineLength = 70000;
// A command line longer than any real one is dropped rather than kept growing.
constexpr qsizetype longestCommand = 64 * 1024;

// Connection numbers (and so handles) run across all radios of the process.
int connectionsSoFar = 0;

QByteArray quoted(const QString &text) { return '"' + text.toUtf8() + '"'; }

// Radios send spaces inside status values as 0x7F, so that values split on spaces.
QByteArray statusValue(const QString &text) { return text.toUtf8().replace(' ', '\x7f'); }

QByteArray handleText(quint32 handle) { return "0x" + QByteArray::number(handle, 16).toUpper().rightJustified(8, '0'); }

quint64 mix(quint64 value)
{
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

// Looks like the radios' client_id (a UUID), and stays the same for a handle.
QByteArray clientId(quint32 handle)
{
    const QByteArray a = QByteArray::number(mix(handle), 16).toUpper().rightJustified(16, '0');
    const QByteArray b = QByteArray::number(mix(~quint64(handle)), 16).toUpper().rightJustified(16, '0');
    return a.left(8) + '-' + a.mid(8, 4) + '-' + a.mid(12, 4) + '-' + b.left(4) + '-' + b.mid(4, 12);
}
} // namespace

Simulator::Simulator(const Identity &identity, const Settings &settings, GuiClients &guiClients)
    : m_identity(identity), m_settings(settings), m_guiClients(guiClients), m_lineEnd(settings.crlf ? "\r\n" : "\n")
{
    m_clock.start();
    connect(&m_server, &QTcpServer::newConnection, this, &Simulator::accept);
    m_guiClients.watch([this](const GuiClients::Change &change) { guiClientsChanged(change); });
}

bool Simulator::listen(const QHostAddress &address, quint16 port) { return m_server.listen(address, port); }

void Simulator::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        ++connectionsSoFar;
        report("connection " + QByteArray::number(connectionsSoFar) + " from " + socket->peerAddress().toString().toUtf8());
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        auto ignoreInput = [socket] { socket->skip(socket->bytesAvailable()); };
        switch (m_settings.fault) {
        case Fault::Silent:
            break;
        case Fault::Close:
            socket->abort();
            socket->deleteLater();
            break;
        case Fault::Garbage:
            send(socket, {"SSH-2.0-OpenSSH_9.2p1 Debian-2", "Protocol mismatch."});
            break;
        case Fault::LongLine:
            greet(socket, false);
            socket->write(QByteArray(longLineLength, 'x'));
            connect(socket, &QTcpSocket::readyRead, socket, ignoreInput);
            break;
        case Fault::FloodNewlines:
        case Fault::FloodGarbage:
            greet(socket, false);
            connect(socket, &QTcpSocket::readyRead, socket, ignoreInput);
            connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] { flood(socket); });
            flood(socket);
            break;
        case Fault::FloodStatus:
            greet(socket, true);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readCommands(socket); });
            connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] { flood(socket); });
            flood(socket);
            break;
        case Fault::None:
        case Fault::Error:
        case Fault::Slow:
        case Fault::NoSerial:
            greet(socket, true);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readCommands(socket); });
            break;
        }
    }
}

void Simulator::greet(QTcpSocket *socket, bool full)
{
    Connection &connection = m_connections[socket];
    connect(socket, &QObject::destroyed, this, [this, socket] { m_connections.remove(socket); });
    connection.handle = QByteArray::number(0x2A000000u + uint(connectionsSoFar), 16).toUpper();
    connection.noise = mix(quint64(connectionsSoFar));
    QList<QByteArray> lines{"V1.4.0.0", "H" + connection.handle};
    if (full) {
        lines << "M10000001|Client connected from IP " + socket->peerAddress().toString().toUtf8()
              << radioStatus(connection.handle, true);
        if (m_settings.wan) {
            const QByteArray state = *m_settings.wan ? "1" : "0";
            lines << "S" + connection.handle + "|wan server_connected=" + state + " radio_authenticated=" + state;
        }
    }
    send(socket, lines);
}

void Simulator::readCommands(QTcpSocket *socket)
{
    const auto found = m_connections.find(socket);
    if (found == m_connections.end())
        return;
    Connection &connection = *found;
    const QByteArray received = socket->readAll();
    // Lines may end in CR, LF or CRLF; the empty "lines" between CR and LF are skipped.
    QList<QByteArray> lines;
    for (const char c : received) {
        if (c == '\n' || c == '\r') {
            if (!connection.skippingLine && !connection.input.isEmpty())
                lines << connection.input;
            connection.input.clear();
            connection.skippingLine = false;
        } else if (connection.input.size() < longestCommand) {
            connection.input.append(c);
        } else {
            connection.input.clear();
            connection.skippingLine = true;
        }
    }
    QList<QByteArray> replies;
    for (const QByteArray &raw : std::as_const(lines)) {
        const QByteArray line = raw.trimmed();
        if (!line.startsWith('C') || !line.contains('|'))
            continue;
        const QByteArray sequence = line.mid(1, line.indexOf('|') - 1);
        const QByteArray command = line.mid(line.indexOf('|') + 1);
        report("command " + command);
        replies << answer(connection, sequence, command);
    }
    if (!replies.isEmpty())
        send(socket, replies);
}

QList<QByteArray> Simulator::answer(Connection &connection, const QByteArray &sequence, const QByteArray &command)
{
    const QByteArray done = "R" + sequence + "|0|";
    const QByteArray unknown = "R" + sequence + "|50000015|Unknown command";
    if (m_settings.fault == Fault::Error)
        return {"R" + sequence + "|50000016|Command not permitted in this state"};
    const QByteArray words = command.simplified();
    if (words == "info")
        return {done + info()};
    if (words == "version")
        return {done + "SmartSDR-MB=" + m_identity.version.toUtf8() + "#PSoC-MBTRX=3.0.19#PSoC-MBPA100=3.0.17#FPGA-MB="
                + m_identity.version.toUtf8()};
    if (words == "ping")
        return {done};
    if (words == "sub client all") {
        QList<QByteArray> lines;
        for (const GuiClient &client : m_guiClients.present())
            lines << clientStatus(connection.handle, client, true);
        connection.clientUpdates = true;
        return lines << done;
    }
    if (words == "sub radio all") {
        connection.radioUpdates = true;
        return {radioStatus(connection.handle, true), done};
    }
    if (words == "sub license all") {
        if (!m_settings.licenseMajor)
            return {unknown};
        return {"S" + connection.handle + "|license radio_id=" + m_identity.mac.toUtf8().replace(':', '-')
                    + " highest_major_version=" + QByteArray::number(*m_settings.licenseMajor),
                done};
    }
    return {unknown};
}

void Simulator::guiClientsChanged(const GuiClients::Change &change)
{
    for (auto it = m_connections.begin(); it != m_connections.end(); ++it) {
        QList<QByteArray> lines;
        if (it->clientUpdates && change.joined) {
            // Real radios announce a new client before they know its station, then again with it.
            lines << clientStatus(it->handle, change.client, false) << clientStatus(it->handle, change.client, true);
        } else if (it->clientUpdates) {
            lines << "S" + it->handle + "|client " + handleText(change.client.handle)
                         + " disconnected forced=0 wan_duplicate=0";
        }
        if (it->radioUpdates && change.freeChanged)
            lines << radioStatus(it->handle, false);
        if (!lines.isEmpty())
            send(it.key(), lines);
    }
}

void Simulator::flood(QTcpSocket *socket)
{
    const auto found = m_connections.find(socket);
    if (found == m_connections.end() || socket->state() != QAbstractSocket::ConnectedState)
        return;
    while (socket->bytesToWrite() < floodBacklog) {
        QByteArray chunk;
        switch (m_settings.fault) {
        case Fault::FloodNewlines:
            chunk = QByteArray(floodChunk, '\n');
            break;
        case Fault::FloodStatus: {
            // Whole lines only, so that answers in between stay lines of their own.
            const QByteArray line = radioStatus(found->handle, false) + m_lineEnd;
            chunk = line.repeated(floodChunk / line.size() + 1);
            break;
        }
        default: {
            chunk.resize(floodChunk);
            quint64 &state = found->noise;
            char *bytes = chunk.data();
            for (qsizetype i = 0; i + 8 <= chunk.size(); i += 8) {
                state = mix(state);
                std::memcpy(bytes + i, &state, 8);
            }
            break;
        }
        }
        if (socket->write(chunk) < 0)
            return;
    }
}

QByteArray Simulator::radioStatus(const QByteArray &handle, bool full) const
{
    QByteArray line = "S" + handle + "|radio slices=" + QByteArray::number(m_guiClients.freeSlices())
                      + " panadapters=" + QByteArray::number(m_guiClients.freePanadapters());
    if (full)
        line += " lineout_gain=60 lineout_mute=0 headphone_gain=50 nickname=" + statusValue(m_identity.name)
                + " callsign=" + statusValue(m_identity.callsign);
    return line;
}

QByteArray Simulator::clientStatus(const QByteArray &handle, const GuiClient &client, bool withStation) const
{
    QByteArray line = "S" + handle + "|client " + handleText(client.handle) + " connected local_ptt=1 client_id="
                      + clientId(client.handle) + " program=" + statusValue(client.program);
    if (withStation)
        line += " station=" + statusValue(client.station);
    return line;
}

QByteArray Simulator::info() const
{
    QList<QByteArray> pairs{"model=" + quoted(m_identity.model)};
    if (m_settings.fault != Fault::NoSerial)
        pairs << "chassis_serial=" + quoted(m_identity.serial);
    pairs << "name=" + quoted(m_identity.name) << "callsign=" + quoted(m_identity.callsign) << "gps=\"Not Present\""
          << "atu_present=1" << "num_scu=2" << "num_slice=" + QByteArray::number(m_settings.maxSlices) << "num_tx=1";
    if (m_identity.softwareVerInInfo)
        pairs << "software_ver=" + m_identity.version.toUtf8();
    pairs << "options=\"GPS, 4m\"" << "ip=127.0.0.1" << "netmask=255.0.0.0" << "gateway=127.0.0.1"
          << "location=\"\"" << "region=\"USA\"" << "screensaver=model" << "mac=" + m_identity.mac.toUtf8();
    return pairs.join(',');
}

void Simulator::send(QTcpSocket *socket, const QList<QByteArray> &lines)
{
    if (m_settings.fault != Fault::Slow) {
        for (const QByteArray &line : lines)
            socket->write(line + m_lineEnd);
        return;
    }
    // Each line after its own pause, after every line queued before it.
    qint64 at = std::max(m_clock.elapsed(), socket->property("busyUntil").toLongLong());
    for (const QByteArray &line : lines) {
        at += m_settings.delayMs;
        QTimer::singleShot(int(at - m_clock.elapsed()), socket, [socket, bytes = line + m_lineEnd] { socket->write(bytes); });
    }
    socket->setProperty("busyUntil", at);
}
