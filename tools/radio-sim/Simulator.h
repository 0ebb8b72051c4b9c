#pragma once

#include "GuiClients.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

#include <optional>

class QTcpSocket;

// Answers on a TCP port the way a radio's command API does, or fails in one chosen way.
class Simulator : public QObject
{
public:
    enum class Fault {
        None,
        Silent,        // accepts, then never says anything
        Close,         // closes each connection at once
        Error,         // answers every command with an error code
        Garbage,       // greets with something that is not a radio's greeting
        Slow,          // waits before every line it sends
        NoSerial,      // leaves chassis_serial out of "info"
        LongLine,      // after the greeting, one line too long to be a radio's, never ended
        FloodNewlines, // after the greeting, empty lines for ever
        FloodStatus,   // answers, but buries the answers in status lines for ever
        FloodGarbage,  // after the greeting, random bytes for ever
    };

    struct Identity
    {
        QString model = QStringLiteral("FLEX-6600");
        QString serial = QStringLiteral("1121-1104-6700-2912");
        QString name = QStringLiteral("RemoteShack");
        QString callsign = QStringLiteral("W1AW");
        QString version = QStringLiteral("3.3.32.8203");
        QString mac = QStringLiteral("00:1C:2D:05:1A:2B");
        bool softwareVerInInfo = true; // otherwise the version is only in "version"'s SmartSDR-MB
    };

    // What every simulated radio in the process has in common.
    struct Settings
    {
        Fault fault = Fault::None;
        int delayMs = 1000;
        bool crlf = false;
        int maxSlices = 4;
        std::optional<bool> wan;            // no "wan" status line when unset
        std::optional<int> licenseMajor;    // "sub license all" is unknown when unset
    };

    Simulator(const Identity &identity, const Settings &settings, GuiClients &guiClients);
    bool listen(const QHostAddress &address, quint16 port);
    quint16 port() const { return m_server.serverPort(); }

private:
    struct Connection
    {
        QByteArray handle;
        QByteArray input;
        bool skippingLine = false;
        bool clientUpdates = false; // "sub client all"
        bool radioUpdates = false;  // "sub radio all"
        quint64 noise = 0;          // state of --fault flood-garbage's generator
    };

    void accept();
    void greet(QTcpSocket *socket, bool full);
    void readCommands(QTcpSocket *socket);
    QList<QByteArray> answer(Connection &connection, const QByteArray &sequence, const QByteArray &command);
    void guiClientsChanged(const GuiClients::Change &change);
    void flood(QTcpSocket *socket);
    void send(QTcpSocket *socket, const QList<QByteArray> &lines);
    QByteArray info() const;
    QByteArray radioStatus(const QByteArray &handle, bool full) const;
    QByteArray clientStatus(const QByteArray &handle, const GuiClient &client, bool withStation) const;

    Identity m_identity;
    const Settings &m_settings;
    GuiClients &m_guiClients;
    QByteArray m_lineEnd;
    QHash<QTcpSocket *, Connection> m_connections; // before m_server: its sockets leave this as they go
    QTcpServer m_server;
    QElapsedTimer m_clock;
};
