#pragma once

#include <QByteArray>
#include <QString>

// Replaces the file at path with bytes so that a reader sees either the old or the whole new
// file, and the new one survives a power cut once this returns: a temporary file in the same
// folder, written and synced, renamed over path, then the folder synced. Creates the folder
// when it is missing. Throws Failure, leaving path as it was.
void writeFileAtomically(const QString &path, const QByteArray &bytes);
