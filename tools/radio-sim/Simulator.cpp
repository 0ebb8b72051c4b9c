#include "Simulator.h"

#include <QTcpSocket>
#include <QTimer>

#include <cstdio>

namespace {
void report(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QByteArray quoted(const QString &text) { return '"' + text.toUtf8() + '"'; }
} // namespace

Simulator::Simulator(const Identity &identity, Fault fault, int delayMs, bool crlf)
    : m_identity(identity), m_fault(fault), m_delayMs(delayMs), m_lineEnd(crlf ? "\r\n" : "\n")
{
    m_clock.start();
    connect(&m_server, &QTcpServer::newConnection, this, &Simulator::accept);
}

bool Simulator::listen(const QHostAddress &address, quint16 port) { return m_server.listen(address, port); }

void Simulator::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        ++m_connections;
        report("connection " + QByteArray::number(m_connections) + " from " + socket->peerAddress().toString().toUtf8());
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        switch (m_fault) {
        case Fault::Silent:
            break;
        case Fault::Close:
            socket->abort();
            socket->deleteLater();
            break;
        case Fault::Garbage:
            send(socket, {"SSH-2.0-OpenSSH_9.2p1 Debian-2", "Protocol mismatch."});
            break;
        default:
            greet(socket);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readCommands(socket); });
            break;
        }
    }
}

void Simulator::greet(QTcpSocket *socket)
{
    const QByteArray handle = QByteArray::number(0x2A000000u + uint(m_connections), 16).toUpper();
    socket->setProperty("handle", handle);
    send(socket, {"V1.4.0.0", "H" + handle,
                  "S" + handle + "|radio slices=4 panadapters=4 lineout_gain=60 lineout_mute=0 headphone_gain=50",
                  "M10000001|Client connected from " + socket->peerAddress().toString().toUtf8()});
}

void Simulator::readCommands(QTcpSocket *socket)
{
    while (socket->canReadLine()) {
        const QByteArray line = socket->readLine().trimmed();
        if (!line.startsWith('C') || !line.contains('|'))
            continue;
        const QByteArray sequence = line.mid(1, line.indexOf('|') - 1);
        const QByteArray command = line.mid(line.indexOf('|') + 1);
        report("command " + command);
        const QByteArray handle = socket->property("handle").toByteArray();
        QList<QByteArray> lines{"S" + handle + "|interlock state=READY reason= source= tx_allowed=1"};
        if (m_fault == Fault::Error)
            lines << "R" + sequence + "|50000016|Command not permitted in this state";
        else if (command == "info")
            lines << "R" + sequence + "|0|" + info();
        else if (command == "version")
            lines << "R" + sequence + "|0|SmartSDR-MB=" + m_identity.version.toUtf8()
                         + "#PSoC-MBTRX=3.0.19#PSoC-MBPA100=3.0.17#FPGA-MB=" + m_identity.version.toUtf8();
        else
            lines << "R" + sequence + "|50000015|Unknown command";
        send(socket, lines);
    }
}

QByteArray Simulator::info() const
{
    QList<QByteArray> pairs{"model=" + quoted(m_identity.model)};
    if (m_fault != Fault::NoSerial)
        pairs << "chassis_serial=" + quoted(m_identity.serial);
    pairs << "name=" + quoted(m_identity.name) << "callsign=" + quoted(m_identity.callsign)
          << "gps=\"Not Present\"" << "atu_present=1" << "num_scu=2" << "num_slice=4" << "num_tx=1";
    if (m_identity.softwareVerInInfo)
        pairs << "software_ver=" + m_identity.version.toUtf8();
    pairs << "options=\"GPS, 4m\"" << "ip=127.0.0.1" << "netmask=255.0.0.0" << "gateway=127.0.0.1"
          << "location=\"\"" << "region=\"USA\"" << "screensaver=model" << "mac=00-1C-2D-05-1A-2B";
    return pairs.join(',');
}

void Simulator::send(QTcpSocket *socket, const QList<QByteArray> &lines)
{
    if (m_fault != Fault::Slow) {
        for (const QByteArray &line : lines)
            socket->write(line + m_lineEnd);
        return;
    }
    // Each line after its own pause, after every line queued before it.
    qint64 at = std::max(m_clock.elapsed(), socket->property("busyUntil").toLongLong());
    for (const QByteArray &line : lines) {
        at += m_delayMs;
        QTimer::singleShot(int(at - m_clock.elapsed()), socket, [socket, bytes = line + m_lineEnd] { socket->write(bytes); });
    }
    socket->setProperty("busyUntil", at);
}
