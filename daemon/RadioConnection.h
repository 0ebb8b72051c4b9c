#pragma once

#include "daemon/CommandChannel.h"
#include "daemon/RadioReplies.h"

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <optional>

struct ConnectionOutcome
{
    std::optional<ConnectionFailure> failure;
    QList<Reply> replies; // one per command, in the order given (on success)
    QHostAddress peer;    // the address actually reached
};

// One short conversation with a radio: connect, read the greeting, send the commands and
// collect one reply for each, skipping status and message lines. Reports once, through the
// callback, and does nothing afterwards; the callback may delete this object (with
// deleteLater).
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
    void opened();
    void handleLine(const QByteArray &line);
    void finish(const ConnectionOutcome &outcome);

    QStringList m_commands;
    Limits m_limits;
    std::function<void(const ConnectionOutcome &)> m_done;
    std::function<void()> m_connectedCallback;
    CommandChannel m_channel;
    QTimer m_totalTimer;
    QList<std::optional<Reply>> m_replies;
    qsizetype m_answered = 0;
    bool m_finished = false;
};
