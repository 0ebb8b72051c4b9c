#pragma once

#include "daemon/Endpoint.h"
#include "daemon/RadioReplies.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTcpSocket>
#include <QTimer>

#include <functional>
#include <optional>

// Why a conversation with a radio's command port did not get its answers.
struct ConnectionFailure
{
    enum class Kind {
        UnknownHost,    // the name did not resolve
        Refused,        // nothing listens on the port
        ConnectTimeout, // no answer to the connection attempt in time
        Unreachable,    // no route to the address
        NotARadio,      // something answered, but not with the radio's greeting
        Closed,         // the other side hung up before answering everything
        AnswerTimeout,  // connected, but the answers did not all come in time
        Network,        // any other network failure (detail says which)
    };
    Kind kind = Kind::Network;
    QString detail; // the system's words, where there are any
};

struct ConnectionOutcome
{
    std::optional<ConnectionFailure> failure;
    QList<Reply> replies; // one per command, in the order given (on success)
    QHostAddress peer;    // the address actually reached
};

// One short conversation with a radio: connect, read the "V" and "H" greeting, send the
// commands and collect one reply for each, skipping status and message lines. Reports once,
// through the callback, and does nothing afterwards; the callback may delete this object
// (with deleteLater).
class RadioConnection : public QObject
{
public:
    struct Limits
    {
        int connectMs = 5000; // to establish the connection, name lookup included
        int totalMs = 15000;  // for the whole conversation
    };

    RadioConnection(const Endpoint &endpoint, const QStringList &commands, Limits limits,
                    std::function<void(const ConnectionOutcome &)> done, QObject *parent = nullptr);

    void start();
    // Called once the connection stands (for progress lines).
    void onConnected(std::function<void()> connected) { m_connectedCallback = std::move(connected); }

private:
    enum class Stage { Connecting, Greeting, Handle, Answers, Done };

    void connected();
    void readAvailable();
    void handleLine(const QByteArray &line);
    void socketError(QAbstractSocket::SocketError error);
    void fail(ConnectionFailure::Kind kind, const QString &detail = QString());
    void finish(const ConnectionOutcome &outcome);

    Endpoint m_endpoint;
    QStringList m_commands;
    Limits m_limits;
    std::function<void(const ConnectionOutcome &)> m_done;
    std::function<void()> m_connectedCallback;
    QTcpSocket m_socket;
    QTimer m_connectTimer;
    QTimer m_totalTimer;
    QByteArray m_buffer;
    QList<std::optional<Reply>> m_replies;
    qsizetype m_answered = 0;
    Stage m_stage = Stage::Connecting;
};
