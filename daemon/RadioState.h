#pragma once

#include "daemon/RadioReplies.h"
#include "platform/RadioTexts.h"

#include <QList>
#include <QMap>
#include <QString>

#include <optional>

// A program that holds one of the radio's GUI client places (SmartSDR, a Maestro, …).
struct GuiClient
{
    quint32 handle = 0;
    QString program;
    QString station;
    QString ip;   // where the radio says it; empty where it does not
    QString host;
};

// What the service knows of a radio right now, from its answers and its status lines.
struct RadioState
{
    QMap<QString, QString> info; // the "info" answer
    RadioIdentity identity;      // from "info" and "version"
    QString nickname;            // "info", then every "radio" status line that names it
    QString callsign;
    std::optional<int> freeSlices;      // "radio slices=…": the ones still free
    std::optional<int> freePanadapters; // "radio panadapters=…"
    std::optional<bool> wanConnected;   // "wan server_connected=…"
    std::optional<int> licensedMajor;   // "license … highest_major_version=…"
    QMap<QString, QString> stated;      // beacon keys that a status line gave outright
    QList<GuiClient> guiClients;        // in the order they connected
};

// The most GUI clients kept from the radio: a radio has a few, and whatever it says must fit
// one beacon. Its texts are cut to the limits of platform/RadioTexts.h.
inline constexpr qsizetype mostGuiClients = 16;

// Takes in the "info" answer and, when the radio gave one, the "version" answer.
void takeIdentity(RadioState &state, const QMap<QString, QString> &info, const QMap<QString, QString> &versions);

// Takes in one status line: the text after "S<handle>|", such as "radio slices=3 panadapters=3"
// or "client 0x7022E1CF connected program=SmartSDR-Win station=OFFICE-WIN". Lines about
// ownHandle (this service's own connection) and lines it does not know change nothing.
void applyStatus(RadioState &state, const QString &text, quint32 ownHandle);
