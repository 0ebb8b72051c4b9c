#include "GuiClients.h"

#include "Output.h"

#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr qsizetype longestInputLine = 4096;

std::optional<quint32> parseHandle(QStringView text)
{
    if (text.startsWith(u"0x"_s, Qt::CaseInsensitive))
        text = text.mid(2);
    bool ok = false;
    const quint32 handle = text.toUInt(&ok, 16);
    if (!ok || handle == 0)
        return std::nullopt;
    return handle;
}

QByteArray handleText(quint32 handle) { return "0x" + QByteArray::number(handle, 16).toUpper().rightJustified(8, '0'); }

// The first word of text, and text after it with its leading spaces gone.
std::pair<QString, QString> firstWord(const QString &text)
{
    const qsizetype space = text.indexOf(u' ');
    if (space < 0)
        return {text, QString()};
    return {text.left(space), text.mid(space + 1).trimmed()};
}
} // namespace

GuiClients::GuiClients(int maxSlices, int maxPanadapters) : m_maxSlices(maxSlices), m_maxPanadapters(maxPanadapters)
{
    m_clock.start();
}

GuiClients::~GuiClients() { delete m_input; }

std::optional<GuiClients::Scripted> GuiClients::parse(const QString &text)
{
    const QStringList parts = text.split(u',');
    if (parts.size() < 2 || parts.size() > 5 || parts.at(0).trimmed().isEmpty())
        return std::nullopt;
    Scripted scripted;
    scripted.client.program = parts.at(0).trimmed();
    scripted.client.station = parts.at(1).trimmed();
    if (parts.size() > 2 && !parts.at(2).trimmed().isEmpty()) {
        const std::optional<quint32> handle = parseHandle(parts.at(2).trimmed());
        if (!handle)
            return std::nullopt;
        scripted.client.handle = *handle;
        scripted.handleGiven = true;
    }
    bool ok = true;
    if (parts.size() > 3 && !parts.at(3).trimmed().isEmpty())
        scripted.joinMs = parts.at(3).trimmed().toInt(&ok);
    if (!ok || scripted.joinMs < 0)
        return std::nullopt;
    if (parts.size() > 4 && !parts.at(4).trimmed().isEmpty()) {
        scripted.leaveMs = parts.at(4).trimmed().toInt(&ok);
        if (!ok || *scripted.leaveMs < scripted.joinMs)
            return std::nullopt;
    }
    return scripted;
}

bool GuiClients::assignHandles(QList<Scripted> &script)
{
    for (const Scripted &scripted : std::as_const(script)) {
        if (!scripted.handleGiven)
            continue;
        if (m_reserved.contains(scripted.client.handle))
            return false;
        m_reserved.insert(scripted.client.handle);
    }
    for (Scripted &scripted : script) {
        if (!scripted.handleGiven) {
            scripted.client.handle = unusedHandle();
            m_reserved.insert(scripted.client.handle);
        }
    }
    return true;
}

void GuiClients::play(const QList<Scripted> &script)
{
    for (const Scripted &scripted : script) {
        auto arrive = [this, scripted] {
            join(scripted.client);
            if (scripted.leaveMs) {
                const int wait = int(std::max<qint64>(0, *scripted.leaveMs - m_clock.elapsed()));
                QTimer::singleShot(wait, Qt::PreciseTimer, [this, handle = scripted.client.handle] { leave(handle); });
            }
        };
        const qint64 wait = scripted.joinMs - m_clock.elapsed();
        if (scripted.joinMs == 0 || wait <= 0)
            arrive();
        else
            QTimer::singleShot(int(wait), Qt::PreciseTimer, arrive);
    }
}

void GuiClients::readStandardInput()
{
    if (::fcntl(STDIN_FILENO, F_GETFD) < 0)
        return; // started with no standard input at all
    m_input = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(m_input, &QSocketNotifier::activated, m_input, [this] { readInput(); });
}

bool GuiClients::join(const GuiClient &client)
{
    for (const GuiClient &each : std::as_const(m_present)) {
        if (each.handle == client.handle)
            return false;
    }
    const int slices = freeSlices(), panadapters = freePanadapters();
    m_present.append(client);
    report("gui client " + handleText(client.handle) + " joined");
    const Change change{client, true, slices != freeSlices() || panadapters != freePanadapters()};
    for (const auto &watcher : m_watchers)
        watcher(change);
    return true;
}

bool GuiClients::leave(quint32 handle)
{
    for (qsizetype i = 0; i < m_present.size(); ++i) {
        if (m_present.at(i).handle != handle)
            continue;
        const int slices = freeSlices(), panadapters = freePanadapters();
        const GuiClient client = m_present.takeAt(i);
        report("gui client " + handleText(handle) + " left");
        const Change change{client, false, slices != freeSlices() || panadapters != freePanadapters()};
        for (const auto &watcher : m_watchers)
            watcher(change);
        return true;
    }
    return false;
}

quint32 GuiClients::unusedHandle()
{
    for (;; ++m_nextHandle) {
        bool used = m_nextHandle == 0 || m_reserved.contains(m_nextHandle);
        for (const GuiClient &each : std::as_const(m_present))
            used = used || each.handle == m_nextHandle;
        if (!used)
            return m_nextHandle++;
    }
}

void GuiClients::readInput()
{
    char buffer[4096];
    const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (got <= 0) {
        // Whoever started us is done talking; the radios stay up.
        m_input->setEnabled(false);
        return;
    }
    for (ssize_t i = 0; i < got; ++i) {
        const char c = buffer[i];
        if (c == '\n' || c == '\r') {
            if (!m_skippingLine)
                handleInput(m_inputLine);
            m_inputLine.clear();
            m_skippingLine = false;
        } else if (m_inputLine.size() < longestInputLine) {
            m_inputLine.append(c);
        } else {
            m_skippingLine = true;
        }
    }
}

void GuiClients::handleInput(const QByteArray &line)
{
    const QString text = QString::fromUtf8(line).trimmed();
    if (text.isEmpty())
        return;
    const auto [command, rest] = firstWord(text);
    if (command == u"join"_s || command == u"join-handle"_s) {
        GuiClient client;
        QString remainder = rest;
        if (command == u"join-handle"_s) {
            const auto [handle, after] = firstWord(rest);
            const std::optional<quint32> parsed = parseHandle(handle);
            if (!parsed) {
                std::fprintf(stderr, "radio-sim: \"%s\" is not a handle\n", qPrintable(handle));
                return;
            }
            client.handle = *parsed;
            remainder = after;
        } else {
            client.handle = unusedHandle();
        }
        std::tie(client.program, client.station) = firstWord(remainder);
        if (client.program.isEmpty()) {
            std::fprintf(stderr, "radio-sim: %s needs a program\n", qPrintable(command));
            return;
        }
        if (!join(client))
            std::fprintf(stderr, "radio-sim: gui client %s is already there\n", handleText(client.handle).constData());
    } else if (command == u"leave"_s) {
        const std::optional<quint32> handle = parseHandle(rest);
        if (!handle || !leave(*handle))
            std::fprintf(stderr, "radio-sim: no gui client \"%s\"\n", qPrintable(rest));
    } else {
        std::fprintf(stderr, "radio-sim: unknown input \"%s\" (join, join-handle or leave)\n", qPrintable(text));
    }
}
