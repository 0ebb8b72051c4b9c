#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QSet>
#include <QString>

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

class QSocketNotifier;

// The operating programs (SmartSDR and the like) connected to the radios right now. Every
// simulated radio shares one set, so a benchmark with many radios still has one script.
struct GuiClient
{
    quint32 handle = 0;
    QString program;
    QString station;
};

class GuiClients
{
public:
    // One entry of --gui-client: joins joinMs after start, leaves at leaveMs if given.
    struct Scripted
    {
        GuiClient client;
        bool handleGiven = false;
        int joinMs = 0;
        std::optional<int> leaveMs;
    };

    struct Change
    {
        GuiClient client;
        bool joined = false;
        bool freeChanged = false; // the free slice or panadapter count moved with it
    };

    GuiClients(int maxSlices, int maxPanadapters);
    ~GuiClients();

    // PROGRAM,STATION[,HANDLE[,JOIN_MS[,LEAVE_MS]]]; nullopt when it does not read as one.
    static std::optional<Scripted> parse(const QString &text);

    // Handles for the script's clients that gave none; false when two gave the same one.
    bool assignHandles(QList<Scripted> &script);
    // Clients due at 0 ms join at once, the rest by timer (one per scripted event, none per radio).
    void play(const QList<Scripted> &script);
    // join/join-handle/leave lines; end of input leaves the simulator running.
    void readStandardInput();

    void watch(std::function<void(const Change &)> watcher) { m_watchers.push_back(std::move(watcher)); }

    const QList<GuiClient> &present() const { return m_present; }
    int freeSlices() const { return std::max(0, m_maxSlices - int(m_present.size())); }
    int freePanadapters() const { return std::max(0, m_maxPanadapters - int(m_present.size())); }

private:
    bool join(const GuiClient &client);
    bool leave(quint32 handle);
    quint32 unusedHandle();
    void readInput();
    void handleInput(const QByteArray &line);

    int m_maxSlices;
    int m_maxPanadapters;
    QList<GuiClient> m_present;
    QSet<quint32> m_reserved; // the script's handles, so stdin joins never take one
    quint32 m_nextHandle = 0x7C88FB01;
    std::vector<std::function<void(const Change &)>> m_watchers;
    QElapsedTimer m_clock;
    QSocketNotifier *m_input = nullptr;
    QByteArray m_inputLine;
    bool m_skippingLine = false;
};
