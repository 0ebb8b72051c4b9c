#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

// Answers on a TCP port the way a radio's command API does, or fails in one chosen way.
class Simulator : public QObject
{
public:
    enum class Fault {
        None,
        Silent,   // accepts, then never says anything
        Close,    // closes each connection at once
        Error,    // answers every command with an error code
        Garbage,  // greets with something that is not a radio's greeting
        Slow,     // waits before every line it sends
        NoSerial, // leaves chassis_serial out of "info"
    };

    struct Identity
    {
        QString model = QStringLiteral("FLEX-6600");
        QString serial = QStringLiteral("1121-1104-6700-2912");
        QString name = QStringLiteral("RemoteShack");
        QString callsign = QStringLiteral("W1AW");
        QString version = QStringLiteral("3.3.32.8203");
        bool softwareVerInInfo = true; // otherwise the version is only in "version"'s SmartSDR-MB
    };

    Simulator(const Identity &identity, Fault fault, int delayMs, bool crlf);
    bool listen(const QHostAddress &address, quint16 port);
    quint16 port() const { return m_server.serverPort(); }

private:
    void accept();
    void greet(QTcpSocket *socket);
    void readCommands(QTcpSocket *socket);
    void send(QTcpSocket *socket, const QList<QByteArray> &lines);
    QByteArray info() const;

    Identity m_identity;
    Fault m_fault;
    int m_delayMs;
    QByteArray m_lineEnd;
    QTcpServer m_server;
    int m_connections = 0;
    QElapsedTimer m_clock;
};
