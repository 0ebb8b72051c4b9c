#pragma once

#include <QString>
#include <QStringList>

// A draft lives for one import, seconds at most; one older than this was left by an app that
// was killed while saving.
inline constexpr qint64 staleDraftSeconds = 10 * 60;

// The folders the writer may have put drafts in: the session's runtime folder and the cache.
QStringList draftFolders();

// Removes this user's drafts ("Veldspar-*.json" files) older than staleDraftSeconds from the
// folders; a draft that a running copy is saving is younger and stays. Blocks; background only.
void removeStaleDrafts(const QStringList &folders);
