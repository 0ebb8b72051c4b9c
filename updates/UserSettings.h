#pragma once

#include <QDateTime>
#include <QString>

#include <optional>

// The user's update choices, kept in the app's settings store
// (~/.config/org.kestrum.Veldspar.configure.conf, INI form) under the usual update keys.
// They override what Info.plist says. Every call reads or writes the file afresh.
namespace UpdateUserSettings {
QString filePath();
// A store that is not a regular file of at most this size is neither read nor written.
inline constexpr qint64 largestFile = 64 * 1024;

std::optional<bool> automaticChecks();       // SUEnableAutomaticChecks
void setAutomaticChecks(bool on);
std::optional<qint64> checkInterval();       // SUScheduledCheckInterval, seconds
void setCheckInterval(qint64 seconds);
QDateTime lastCheckTime();                   // SULastCheckTime; invalid when never
void setLastCheckTime(const QDateTime &time);
QString skippedVersion();                    // SUSkippedVersion; empty when none
void setSkippedVersion(const QString &version);
bool hasLaunchedBefore();                    // SUHasLaunchedBefore
void setHasLaunchedBefore();
// Whether the app had been launched before this run. The first call of a process reads it and
// marks this launch; later calls answer the same, whoever marked it.
bool launchedBeforeThisRun();
// Forgets that answer, as a new run would (tests run several in one process).
void startNewRunForTesting();
// The phased-rollout group of this installation, 0…6, drawn once at random.
int rolloutGroup();                          // SUUpdateGroupIdentifier
} // namespace UpdateUserSettings
