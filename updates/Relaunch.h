#pragma once

#include <QString>
#include <QStringList>

#include <functional>

struct RelaunchCommand
{
    QString program;
    QStringList arguments;
    QString workingDirectory;
};

// Starts the newly installed app detached, then quits this one.
void relaunchApplication(const RelaunchCommand &command);

// Tests record the command instead of starting a process and quitting; an empty function
// restores the real relaunch.
void setRelaunchForTesting(std::function<void(const RelaunchCommand &)> recorder);
