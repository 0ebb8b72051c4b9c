#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Replaces a file's content all at once (a temporary file renamed over it); throws Error.
void writeFileAtomically(const QString &path, const QByteArray &bytes);
// Creates a new file that only this user may read or write (0600) and fills it; refuses a
// path that is already taken, a link included. Throws Error.
void writeNewPrivateFile(const QString &path, const QByteArray &bytes);
// The whole file, or nothing when it cannot be read.
std::optional<QByteArray> readWholeFile(const QString &path);
// A small file that something else writes (a service's state): read only when it is a regular
// file of at most limit bytes. The open never waits (a FIFO in its place is refused, not read),
// and no more than limit + 1 bytes are read.
std::optional<QByteArray> readSmallFile(const QString &path, qint64 limit);
// Whether anything is at the path, a dangling link included.
bool pathExists(const QString &path);
// Removes a file, a link or a whole folder tree; false when something stayed.
bool removePath(const QString &path);
