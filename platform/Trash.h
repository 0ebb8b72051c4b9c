#pragma once

#include <QDateTime>
#include <QString>

// The user's freedesktop.org Trash: ~/.local/share/Trash with files/ and info/.
QString trashFolder();
QString trashFilesFolder();
QString trashInfoFolder();
QString trashInfoPath(const QString &trashedName);

// Makes ~/.local/share/Trash/files and info; false when they cannot be made.
bool makeTrashFolders();

// Moves a file or folder to the user's Trash; false when it could not. The Trash folders are
// made first: when Qt cannot make them itself it reports success after moving the item into
// "files/" under the current working folder.
bool moveToTrash(const QString &path);

// The .trashinfo record of an item moved to the Trash under trashedName: its original path,
// percent-encoded, and the local time of the deletion.
QByteArray trashInfo(const QString &originalPath, const QDateTime &deletedAt);
