#pragma once

#include "daemon/BeaconSender.h"

#include <QList>
#include <QString>
#include <QStringList>

// The range of --check-period-ms: below it a radio across a VPN cannot answer in time; above
// it a radio that is gone stays announced for too long.
inline constexpr int shortestCheckPeriodMs = 100;
inline constexpr int longestCheckPeriodMs = 60000;

// What the command line asks for.
struct Options
{
    enum class Mode { Discover, Import, Service, Help, Invalid };
    Mode mode = Mode::Invalid;
    QString address;    // --discover
    QString configPath; // --config
    QString importFile; // --import
    QList<Destination> broadcast; // --broadcast, repeatable
    int checkPeriodMs = 0;        // hidden --check-period-ms; 0 keeps the default
    QString problem;    // why the command line is invalid
    QString help;
};

Options parseOptions(const QStringList &arguments);
