#pragma once

#include "daemon/BeaconSender.h"

#include <QList>
#include <QString>
#include <QStringList>

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
