#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

// Which backups are kept, so that no configuration the user ever had is pruned away for good
// (one the app could not read, say, and then saved over): the newest keptBackups, the oldest of
// all, and the newest of each of the last backupDays days (UTC days, as in the names, today
// being the clock's); and never the one just written.
inline constexpr int keptBackups = 20;
inline constexpr int backupDays = 30;

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

// Deletes the backups in folder that none of the rules above keeps, with now as the clock's
// time and spared as the one just written; other files are left alone.
void pruneBackups(const QString &folder, const QDateTime &now, int keep = keptBackups, const QString &spared = {});
