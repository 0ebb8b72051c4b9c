#include "daemon/RadioConnection.h"

RadioConnection::RadioConnection(const Endpoint &endpoint, const QStringList &commands, Limits limits,
                                 std::function<void(const ConnectionOutcome &)> done, QObject *parent)
    : QObject(parent), m_commands(commands), m_limits(limits), m_done(std::move(done)),
      m_channel(endpoint, limits.connectMs,
                {[this] {
                     if (m_connectedCallback)
                         m_connectedCallback();
                 },
                 [this] { opened(); }, [this](const QByteArray &line) { handleLine(line); },
                 [this](const ConnectionFailure &failure) { finish({failure, {}, {}}); }})
{
    m_replies.resize(commands.size());
    m_totalTimer.setSingleShot(true);
    // A coarse timer may fire 5 % early; the limit is promised in whole seconds.
    m_totalTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_totalTimer, &QTimer::timeout, this, [this] { m_channel.fail(ConnectionFailure::Kind::AnswerTimeout); });
}

void RadioConnection::start()
{
    m_totalTimer.start(m_limits.totalMs);
    m_channel.start();
}

void RadioConnection::opened()
{
    for (const QString &command : std::as_const(m_commands))
        m_channel.send(command);
    if (m_commands.isEmpty())
        finish({std::nullopt, {}, m_channel.peer()});
}

void RadioConnection::handleLine(const QByteArray &line)
{
    if (!line.startsWith('R') || !m_channel.isOpen())
        return; // status and message lines, and anything newer this client does not know
    const std::optional<Reply> reply = parseReply(line);
    if (!reply)
        return m_channel.fail(ConnectionFailure::Kind::NotARadio);
    const qsizetype index = qsizetype(reply->sequence) - 1;
    if (index < 0 || index >= m_replies.size() || m_replies.at(index))
        return;
    m_replies[index] = reply;
    if (++m_answered < m_replies.size())
        return;
    ConnectionOutcome outcome;
    outcome.peer = m_channel.peer();
    for (const std::optional<Reply> &each : std::as_const(m_replies))
        outcome.replies.append(*each);
    finish(outcome);
}

void RadioConnection::finish(const ConnectionOutcome &outcome)
{
    if (m_finished)
        return;
    m_finished = true;
    m_totalTimer.stop();
    m_channel.close();
    // Last: the callback may schedule this object's deletion.
    m_done(outcome);
}
