#include "daemon/RadioLink.h"

#include "daemon/RadioReplies.h"

using namespace Qt::StringLiterals;

namespace {
// A radio on the far side of a VPN answers within a second; these bound a radio that is lost.
constexpr int connectMs = 3000;
constexpr int handshakeMs = 5000; // from the start of the attempt to the last first answer
} // namespace

QString lossReason(const ConnectionFailure &failure)
{
    using Kind = ConnectionFailure::Kind;
    switch (failure.kind) {
    case Kind::UnknownHost: return u"its host name is unknown"_s;
    case Kind::Refused: return u"connection refused"_s;
    case Kind::ConnectTimeout: return u"no answer to the connection"_s;
    case Kind::Unreachable: return failure.detail;
    case Kind::NotARadio: return u"it does not answer as a radio"_s;
    case Kind::Closed: return u"it closed the connection"_s;
    case Kind::AnswerTimeout: return u"no answer to \"info\""_s;
    case Kind::LineTooLong: return u"it sent a line longer than 64 KiB"_s;
    case Kind::Flood: return u"it sent more than a radio ever does in a second"_s;
    case Kind::Network: return failure.detail;
    case Kind::NoResources: return u"out of file descriptors or memory"_s;
    }
    return {};
}

RadioLink::RadioLink(const Endpoint &endpoint, int keepAliveMs, Handlers handlers, QObject *parent)
    : QObject(parent), m_handlers(std::move(handlers)),
      m_channel(endpoint, connectMs,
                {{}, [this] { opened(); }, [this](const QByteArray &line) { handleLine(line); },
                 [this](const ConnectionFailure &failure) {
                     lose(lossReason(failure), failure.kind == ConnectionFailure::Kind::NoResources);
                 }})
{
    m_handshakeTimer.setSingleShot(true);
    m_handshakeTimer.setInterval(handshakeMs);
    connect(&m_handshakeTimer, &QTimer::timeout, this,
            [this] { m_channel.fail(ConnectionFailure::Kind::AnswerTimeout); });
    m_keepAliveTimer.setInterval(keepAliveMs);
    connect(&m_keepAliveTimer, &QTimer::timeout, this, &RadioLink::keepAlive);
}

void RadioLink::start()
{
    m_handshakeTimer.start();
    m_channel.start();
}

void RadioLink::opened()
{
    // All at once: a radio answers in order, and the client list is complete when the
    // subscription's own answer comes, so the first beacon never shows too few clients.
    m_asked.insert(m_channel.send(u"info"_s), Ask::Info);
    m_asked.insert(m_channel.send(u"version"_s), Ask::Version);
    m_asked.insert(m_channel.send(u"sub client all"_s), Ask::Clients);
    m_asked.insert(m_channel.send(u"sub radio all"_s), Ask::Resources);
    m_asked.insert(m_channel.send(u"sub license all"_s), Ask::Licence);
}

void RadioLink::handleLine(const QByteArray &line)
{
    if (line.startsWith('S')) {
        const qsizetype bar = line.indexOf('|');
        if (bar > 0)
            applyStatus(m_state, QString::fromUtf8(line.mid(bar + 1)), m_channel.handle());
        return;
    }
    if (!line.startsWith('R'))
        return; // messages, and anything newer
    const std::optional<Reply> reply = parseReply(line);
    if (!reply)
        return m_channel.fail(ConnectionFailure::Kind::NotARadio);
    const auto asked = m_asked.find(reply->sequence);
    if (asked == m_asked.end())
        return;
    const Ask ask = asked.value();
    m_asked.erase(asked);
    answered(ask, *reply);
}

void RadioLink::answered(Ask ask, const Reply &reply)
{
    switch (ask) {
    case Ask::Info:
        if (reply.code != 0)
            return lose(u"it answered \"info\" with error %1"_s.arg(radioHex(reply.code)));
        m_info = parseInfo(reply.message);
        break;
    case Ask::Version:
        if (reply.code == 0)
            m_versions = parseVersions(reply.message);
        break;
    case Ask::KeepAlive:
        return; // answered: it is alive, whatever the code
    case Ask::Clients:
    case Ask::Resources:
    case Ask::Licence:
        break; // older radios refuse some subscriptions; the state then keeps what it has
    }
    if (m_ready || !m_asked.isEmpty())
        return;
    m_handshakeTimer.stop();
    takeIdentity(m_state, m_info, m_versions);
    m_ready = true;
    m_keepAliveTimer.start();
    m_handlers.ready();
}

void RadioLink::keepAlive()
{
    if (!m_asked.isEmpty())
        return lose(u"no answer to \"ping\" within %1 seconds"_s.arg(m_keepAliveTimer.interval() / 1000.0));
    m_asked.insert(m_channel.send(u"ping"_s), Ask::KeepAlive);
}

void RadioLink::lose(const QString &why, bool starved)
{
    if (m_lost)
        return;
    m_lost = true;
    m_ready = false;
    m_handshakeTimer.stop();
    m_keepAliveTimer.stop();
    m_channel.close();
    if (starved && m_handlers.starved)
        m_handlers.starved();
    else
        m_handlers.lost(why);
}
