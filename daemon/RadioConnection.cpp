#include "daemon/RadioConnection.h"

using namespace Qt::StringLiterals;

namespace {
// A radio's lines are short; a peer that sends this much without a line end is not one.
constexpr qsizetype longestLine = 64 * 1024;

bool isVersionLine(const QByteArray &line)
{
    if (line.size() < 2 || line.at(0) != 'V')
        return false;
    for (qsizetype i = 1; i < line.size(); ++i) {
        const char c = line.at(i);
        if (!(c == '.' || (c >= '0' && c <= '9')))
            return false;
    }
    return true;
}
} // namespace

RadioConnection::RadioConnection(const Endpoint &endpoint, const QStringList &commands, Limits limits,
                                 std::function<void(const ConnectionOutcome &)> done, QObject *parent)
    : QObject(parent), m_endpoint(endpoint), m_commands(commands), m_limits(limits), m_done(std::move(done))
{
    m_replies.resize(commands.size());
    m_connectTimer.setSingleShot(true);
    m_totalTimer.setSingleShot(true);
    // A coarse timer may fire 5 % early; the limits are promised in whole seconds.
    m_connectTimer.setTimerType(Qt::PreciseTimer);
    m_totalTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_connectTimer, &QTimer::timeout, this, [this] { fail(ConnectionFailure::Kind::ConnectTimeout); });
    connect(&m_totalTimer, &QTimer::timeout, this, [this] { fail(ConnectionFailure::Kind::AnswerTimeout); });
    connect(&m_socket, &QTcpSocket::connected, this, &RadioConnection::connected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &RadioConnection::readAvailable);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &RadioConnection::socketError);
}

void RadioConnection::start()
{
    m_connectTimer.start(m_limits.connectMs);
    m_totalTimer.start(m_limits.totalMs);
    // Radios speak IPv4 only; a name that also has an IPv6 address must not lead elsewhere.
    m_socket.connectToHost(m_endpoint.host, m_endpoint.port, QIODevice::ReadWrite, QAbstractSocket::IPv4Protocol);
}

void RadioConnection::connected()
{
    if (m_stage != Stage::Connecting)
        return;
    m_connectTimer.stop();
    m_stage = Stage::Greeting;
    if (m_connectedCallback)
        m_connectedCallback();
}

void RadioConnection::readAvailable()
{
    m_buffer += m_socket.readAll();
    // Lines may end in CR, LF or CRLF; the empty "lines" between CR and LF are skipped.
    while (m_stage != Stage::Done) {
        qsizetype end = -1;
        for (qsizetype i = 0; i < m_buffer.size(); ++i) {
            if (m_buffer.at(i) == '\n' || m_buffer.at(i) == '\r') {
                end = i;
                break;
            }
        }
        if (end < 0) {
            if (m_buffer.size() > longestLine)
                fail(ConnectionFailure::Kind::NotARadio);
            return;
        }
        const QByteArray line = m_buffer.left(end);
        m_buffer.remove(0, end + 1);
        if (!line.isEmpty())
            handleLine(line);
    }
}

void RadioConnection::handleLine(const QByteArray &line)
{
    switch (m_stage) {
    case Stage::Greeting:
        if (!isVersionLine(line))
            return fail(ConnectionFailure::Kind::NotARadio);
        m_stage = Stage::Handle;
        return;
    case Stage::Handle:
        if (line.startsWith('S') || line.startsWith('M'))
            return;
        if (!line.startsWith('H'))
            return fail(ConnectionFailure::Kind::NotARadio);
        m_stage = Stage::Answers;
        for (qsizetype i = 0; i < m_commands.size(); ++i)
            m_socket.write("C" + QByteArray::number(i + 1) + '|' + m_commands.at(i).toUtf8() + '\n');
        if (m_commands.isEmpty())
            finish({std::nullopt, {}, m_socket.peerAddress()});
        return;
    case Stage::Answers: {
        if (!line.startsWith('R'))
            return; // status and message lines, and anything newer this client does not know
        const std::optional<Reply> reply = parseReply(line);
        if (!reply)
            return fail(ConnectionFailure::Kind::NotARadio);
        const qsizetype index = qsizetype(reply->sequence) - 1;
        if (index < 0 || index >= m_replies.size() || m_replies.at(index))
            return;
        m_replies[index] = reply;
        if (++m_answered == m_replies.size()) {
            ConnectionOutcome outcome;
            outcome.peer = m_socket.peerAddress();
            for (const std::optional<Reply> &each : std::as_const(m_replies))
                outcome.replies.append(*each);
            finish(outcome);
        }
        return;
    }
    case Stage::Connecting:
    case Stage::Done:
        return;
    }
}

void RadioConnection::socketError(QAbstractSocket::SocketError error)
{
    using Kind = ConnectionFailure::Kind;
    switch (error) {
    case QAbstractSocket::HostNotFoundError:
        return fail(Kind::UnknownHost, m_socket.errorString());
    case QAbstractSocket::ConnectionRefusedError:
        return fail(Kind::Refused, m_socket.errorString());
    case QAbstractSocket::RemoteHostClosedError:
        return fail(m_stage == Stage::Connecting ? Kind::Refused : Kind::Closed, m_socket.errorString());
    case QAbstractSocket::SocketTimeoutError:
        return fail(m_stage == Stage::Connecting ? Kind::ConnectTimeout : Kind::AnswerTimeout, m_socket.errorString());
    case QAbstractSocket::NetworkError:
        return fail(m_stage == Stage::Connecting ? Kind::Unreachable : Kind::Closed, m_socket.errorString());
    default:
        return fail(Kind::Network, m_socket.errorString());
    }
}

void RadioConnection::fail(ConnectionFailure::Kind kind, const QString &detail)
{
    ConnectionOutcome outcome;
    outcome.failure = ConnectionFailure{kind, detail};
    finish(outcome);
}

void RadioConnection::finish(const ConnectionOutcome &outcome)
{
    if (m_stage == Stage::Done)
        return;
    m_stage = Stage::Done;
    m_connectTimer.stop();
    m_totalTimer.stop();
    m_socket.abort();
    // Last: the callback may schedule this object's deletion.
    m_done(outcome);
}
