#pragma once

#include <QString>

// A folder that only this user may enter, for short-lived files other accounts must not read:
// $XDG_RUNTIME_DIR/Veldspar when the session's runtime folder is usable, else the app's cache
// folder. Makes it 0700 when missing and narrows it to 0700 when it is wider; throws Error when
// neither can be had.
QString privateFolder();

// Whether the session's runtime folder can be trusted as the login manager makes it: an
// absolute path to a real folder of this user that nobody else may enter.
bool isPrivateRuntimeFolder(const QString &path);

// Makes path (and its missing parents) with mode 0700, or accepts the folder already there when
// it is a real folder of this user, narrowing it to 0700. Throws Error otherwise: a link, a
// file or another account's folder is never used.
void makePrivateFolder(const QString &path);
