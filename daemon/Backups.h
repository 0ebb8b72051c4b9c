#pragma once

#include <QDateTime>
#include <QString>

inline constexpr int keptBackups = 20;

// Copies the file at path into the folder "backups" beside it, named
// config-<UTC date and time>.json (to the millisecond, so names sort by age), then deletes
// all but the newest keptBackups there. Returns the backup's path, or an empty text when
// there is no file to back up. Throws Failure when the copy cannot be made.
QString backUp(const QString &path, const QDateTime &now = QDateTime::currentDateTimeUtc());

// Deletes the oldest backups in folder until at most keep remain; other files are left alone.
void pruneBackups(const QString &folder, int keep = keptBackups);
