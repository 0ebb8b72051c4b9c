#include "daemon/CommandChannel.h"

#include <QNetworkProxy>

using namespace Qt::StringLiterals;

namespace {
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

CommandChannel::CommandChannel(const Endpoint &endpoint, int connectMs, Handlers handlers, QObject *parent)
    : QObject(parent), m_endpoint(endpoint), m_connectMs(connectMs), m_handlers(std::move(handlers))
{
    m_connectTimer.setSingleShot(true);
    // A coarse timer may fire 5 % early; the limit is promised in whole seconds.
    m_connectTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_connectTimer, &QTimer::timeout, this, [this] { fail(ConnectionFailure::Kind::ConnectTimeout); });
    connect(&m_socket, &QTcpSocket::connected, this, &CommandChannel::connected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &CommandChannel::readAvailable);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &CommandChannel::socketError);
    // Qt stops reading from the kernel once this much waits unread, so a peer that floods
    // cannot grow this process.
    m_socket.setReadBufferSize(longestRadioLine + 4096);
    // Radios are reached directly; the system's proxy settings are not even asked.
    m_socket.setProxy(QNetworkProxy::NoProxy);
}

void CommandChannel::start()
{
    if (m_stage != Stage::Idle)
        return;
    m_stage = Stage::Connecting;
    m_connectTimer.start(m_connectMs);
    // Radios speak IPv4 only; a name that also has an IPv6 address must not lead elsewhere.
    m_socket.connectToHost(m_endpoint.host, m_endpoint.port, QIODevice::ReadWrite, QAbstractSocket::IPv4Protocol);
}

quint32 CommandChannel::send(const QString &command)
{
    const quint32 sequence = m_nextSequence++;
    if (m_stage == Stage::Open)
        m_socket.write('C' + QByteArray::number(sequence) + '|' + command.toUtf8() + '\n');
    return sequence;
}

void CommandChannel::close()
{
    m_stage = Stage::Done;
    m_connectTimer.stop();
    m_socket.abort();
}

void CommandChannel::fail(ConnectionFailure::Kind kind, const QString &detail)
{
    if (m_stage == Stage::Done)
        return;
    close();
    // Later, so that no handler runs inside start() or inside another handler.
    QMetaObject::invokeMethod(
        this, [this, failure = ConnectionFailure{kind, detail}] { m_handlers.failed(failure); }, Qt::QueuedConnection);
}

void CommandChannel::connected()
{
    if (m_stage != Stage::Connecting)
        return;
    m_connectTimer.stop();
    m_peer = m_socket.peerAddress();
    m_stage = Stage::Greeting;
    m_connectedFor.start();
    if (m_handlers.connected)
        m_handlers.connected();
}

void CommandChannel::readAvailable()
{
    const QByteArray received = m_socket.readAll();
    if (m_stage == Stage::Done || m_stage == Stage::Connecting)
        return;
    m_lines.append(received);
    int lines = 0;
    // Handlers may end the conversation; stop reading as soon as one does.
    while (m_stage != Stage::Done) {
        const LineFramer::Next next = m_lines.take();
        if (next.status == LineFramer::Status::TooLong)
            return fail(ConnectionFailure::Kind::LineTooLong);
        if (next.status == LineFramer::Status::NeedMore)
            break;
        ++lines; // the empty "lines" between CR and LF count: a flood of line ends is a flood
        if (!next.line.isEmpty())
            handleLine(next.line);
    }
    if (m_stage == Stage::Done)
        return;
    if (!m_budget.admit(m_connectedFor.elapsed(), received.size(), lines))
        fail(ConnectionFailure::Kind::Flood);
}

void CommandChannel::handleLine(const QByteArray &line)
{
    switch (m_stage) {
    case Stage::Greeting:
        if (!isVersionLine(line))
            return fail(ConnectionFailure::Kind::NotARadio);
        m_stage = Stage::Handle;
        return;
    case Stage::Handle: {
        if (line.startsWith('S') || line.startsWith('M')) {
            m_handlers.line(line);
            return;
        }
        bool ok = false;
        m_handle = line.startsWith('H') ? line.mid(1).toUInt(&ok, 16) : 0;
        if (!ok)
            return fail(ConnectionFailure::Kind::NotARadio);
        m_stage = Stage::Open;
        m_handlers.opened();
        return;
    }
    case Stage::Open:
        m_handlers.line(line);
        return;
    case Stage::Idle:
    case Stage::Connecting:
    case Stage::Done:
        return;
    }
}

void CommandChannel::socketError(QAbstractSocket::SocketError error)
{
    using Kind = ConnectionFailure::Kind;
    const bool connecting = m_stage == Stage::Connecting;
    switch (error) {
    case QAbstractSocket::HostNotFoundError:
        return fail(Kind::UnknownHost, m_socket.errorString());
    case QAbstractSocket::ConnectionRefusedError:
        return fail(Kind::Refused, m_socket.errorString());
    case QAbstractSocket::RemoteHostClosedError:
        return fail(connecting ? Kind::Refused : Kind::Closed, m_socket.errorString());
    case QAbstractSocket::SocketTimeoutError:
        return fail(connecting ? Kind::ConnectTimeout : Kind::AnswerTimeout, m_socket.errorString());
    case QAbstractSocket::NetworkError:
        return fail(connecting ? Kind::Unreachable : Kind::Closed, m_socket.errorString());
    case QAbstractSocket::SocketResourceError:
        return fail(Kind::NoResources, m_socket.errorString());
    default:
        return fail(Kind::Network, m_socket.errorString());
    }
}
