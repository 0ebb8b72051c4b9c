#pragma once

#include "daemon/Endpoint.h"
#include "daemon/LineFramer.h"
#include "daemon/ReadBudget.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

#include <functional>

// Why a conversation with a radio's command port ended.
struct ConnectionFailure
{
    enum class Kind {
        UnknownHost,    // the name did not resolve
        Refused,        // nothing listens on the port
        ConnectTimeout, // no answer to the connection attempt in time
        Unreachable,    // no route to the address
        NotARadio,      // something answered, but not with the radio's greeting
        Closed,         // the other side hung up
        AnswerTimeout,  // connected, but the answers did not come in time
        LineTooLong,    // a line longer than any radio sends
        Flood,          // more lines or bytes a second than any radio sends
        NoResources,    // the system would not give a socket: out of file descriptors or memory
        Network,        // any other network failure (detail says which)
    };
    Kind kind = Kind::Network;
    QString detail; // the system's words, where there are any
};

// The longest line a radio may send, and how much it may send in one second. A radio's
// lines are short and few; a peer beyond these is broken or hostile, and reading it on would
// cost memory and time that the other radios' beacons need.
inline constexpr qsizetype longestRadioLine = 64 * 1024;
inline constexpr int mostRadioLinesPerSecond = 2000;
inline constexpr qsizetype mostRadioBytesPerSecond = 512 * 1024;

// A connection to a radio's command port: connects over IPv4, checks the greeting ("V<version>",
// then "H<handle>", with status and message lines allowed between), then sends commands and
// hands over every line the radio sends. Lines may end in CR, LF or CRLF.
//
// A failure is reported once, on a later turn of the event loop (never from inside start() or
// a handler), and nothing happens afterwards. Handlers may delete the channel with deleteLater.
class CommandChannel : public QObject
{
public:
    struct Handlers
    {
        std::function<void()> connected;                          // the TCP connection stands
        std::function<void()> opened;                             // greeting read: send commands
        std::function<void(const QByteArray &line)> line;         // each later line, never empty
        std::function<void(const ConnectionFailure &)> failed;
    };

    CommandChannel(const Endpoint &endpoint, int connectMs, Handlers handlers, QObject *parent = nullptr);

    void start();
    // Sends "C<seq>|<command>" and returns seq (from 1, in order).
    quint32 send(const QString &command);
    // Ends the conversation without reporting anything.
    void close();
    // Reports the failure (once) and ends the conversation.
    void fail(ConnectionFailure::Kind kind, const QString &detail = QString());

    bool isOpen() const { return m_stage == Stage::Open; }
    QHostAddress peer() const { return m_peer; }
    quint32 handle() const { return m_handle; }

private:
    enum class Stage { Idle, Connecting, Greeting, Handle, Open, Done };

    void connected();
    void readAvailable();
    void handleLine(const QByteArray &line);
    void socketError(QAbstractSocket::SocketError error);

    Endpoint m_endpoint;
    int m_connectMs;
    Handlers m_handlers;
    QTcpSocket m_socket;
    QTimer m_connectTimer;
    LineFramer m_lines{longestRadioLine};
    QElapsedTimer m_connectedFor; // the clock of the read budget
    ReadBudget m_budget{mostRadioBytesPerSecond, mostRadioLinesPerSecond};
    Stage m_stage = Stage::Idle;
    quint32 m_nextSequence = 1;
    quint32 m_handle = 0;
    QHostAddress m_peer;
};
