#pragma once

#include "daemon/CommandChannel.h"
#include "daemon/RadioState.h"

#include <QMap>
#include <QObject>
#include <QTimer>

#include <functional>
#include <optional>

// A radio's command port, held open for as long as the radio answers, as a non-GUI client
// (it takes none of the radio's GUI client places). Learns who the radio is ("info",
// "version"), subscribes to its clients, resources and licence, and keeps its state current
// from the status lines that follow. A radio that stops answering its keep-alive, closes the
// connection or misbehaves is reported lost, once; the link is then finished.
class RadioLink : public QObject
{
public:
    struct Handlers
    {
        std::function<void()> ready;                    // state holds the radio's answers
        std::function<void(const QString &why)> lost;   // plain words, for the log
        // Instead of lost when the link could not even get a socket (out of file descriptors
        // or memory): a shortage of this process, not news about the radio.
        std::function<void()> starved;
    };

    // keepAliveMs: how often the radio must answer; no answer by the next one loses it.
    RadioLink(const Endpoint &endpoint, int keepAliveMs, Handlers handlers, QObject *parent = nullptr);

    void start();
    bool isReady() const { return m_ready; }
    const RadioState &state() const { return m_state; }
    QHostAddress peer() const { return m_channel.peer(); }

private:
    enum class Ask { Info, Version, Clients, Resources, Licence, KeepAlive };

    void opened();
    void handleLine(const QByteArray &line);
    void answered(Ask ask, const Reply &reply);
    void keepAlive();
    void lose(const QString &why, bool starved = false);

    Handlers m_handlers;
    CommandChannel m_channel;
    QTimer m_handshakeTimer;
    QTimer m_keepAliveTimer;
    QMap<quint32, Ask> m_asked; // by sequence, until answered
    QMap<QString, QString> m_info;
    QMap<QString, QString> m_versions;
    RadioState m_state;
    bool m_ready = false;
    bool m_lost = false;
};

// Plain words for why a conversation with a radio failed, for the service's log.
QString lossReason(const ConnectionFailure &failure);
