#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

// A program in one of a radio's GUI client places, as the state file names it.
struct LiveClient
{
    QString program;
    QString station;

    bool operator==(const LiveClient &) const = default;
};

// What the service can say right now about one enabled radio: whether it is announced and,
// when not, why, since when; and while it is, what its beacon says of its clients.
// NotAnnounced: the radio answers, but its beacon does not go out (its serial is another
// radio's, or no beacon could be sent).
struct RadioLiveState
{
    enum class Phase { Connecting, Announced, NotAnswering, NotAnnounced };

    QString serialNumber; // as configured: the app finds its entry by these two
    QString ipAddress;
    QString name;         // as the radio last named itself, else as configured
    Phase phase = Phase::Connecting;
    QString reason;       // NotAnswering, NotAnnounced: the same plain words as the log
    QDateTime since;      // when the phase began
    QString status;       // Announced: "Available" or "In_Use", as in the beacon
    int licensedClients = 0;
    QList<LiveClient> guiClients;
    QDateTime lastBeacon; // invalid until the first beacon

    // Equal in everything a reader shows; the time of the last beacon changes with every beat
    // and alone is no reason to write the file again.
    bool sameShownState(const RadioLiveState &other) const;
};

// The whole state file: the service's process id (a reader that finds no such process knows the
// file is left over), when it was written, and each radio, every text within what a radio has
// (platform/RadioTexts.h), so that the app can show them all.
QByteArray liveStateDocument(const QList<RadioLiveState> &radios, qint64 pid, const QDateTime &written);
