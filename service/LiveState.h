#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include <optional>
#include <utility>

// The service's live state as its state file says it, read without trusting it.
struct LiveRadio
{
    enum class Phase { Connecting, Announced, NotAnswering, NotAnnounced };

    QString serialNumber;
    QString ipAddress;
    Phase phase = Phase::Connecting;
    QString reason;
    QDateTime since;
    QString status;
    int licensedClients = 0;
    QList<std::pair<QString, QString>> guiClients; // program, station
};

struct ServiceLiveState
{
    qint64 pid = 0;
    QList<LiveRadio> radios;
};

// A state file larger than this is not the service's: a few hundred bytes a radio.
inline constexpr qint64 largestLiveState = 4 * 1024 * 1024;

// Nothing when the bytes are not a whole, well-formed state file: a garbage or half-written
// file changes nothing on screen. A radio entry that is not well formed, or has a text longer
// than a radio's (platform/RadioTexts.h), is left out and the others are read: one bad entry
// does not hide every radio's state.
std::optional<ServiceLiveState> parseLiveState(const QByteArray &bytes);
