#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

inline constexpr int keptBackups = 20;

// The folder "backups" beside the configuration at configPath.
QString backupFolderFor(const QString &configPath);

// What a backup's name looks like, config-<UTC date and time to the millisecond>.json, as a
// regular expression without anchors.
QString backupNamePattern();

// The path for the next backup in folder: named after now, but always after the newest backup
// already there, so that it sorts as the newest even when the clock was once ahead (it is then
// never the one that pruning removes) and never takes an existing backup's name.
QString nextBackupPath(const QString &folder, const QDateTime &now);

// Writes bytes, whole or not at all, as the next backup in folder (which must exist). Returns
// its path. Throws Failure.
QString writeBackup(const QString &folder, const QByteArray &bytes,
                    const QDateTime &now = QDateTime::currentDateTimeUtc());

// Deletes the oldest backups in folder until at most keep remain, never the one named spared;
// other files are left alone.
void pruneBackups(const QString &folder, int keep = keptBackups, const QString &spared = {});
