#pragma once

#include <QString>

// The bundle folder that holds the running executable ("…/Veldspar.app") as the program was
// started: argv[0] made absolute against the start-up working folder (or found through PATH),
// cleaned of "." and "..", links among its folders left unresolved. A started name that does
// not lead to the running executable is not believed; the resolved folder serves then.
QString bundleLocation();
// Bundle location + "Resources"; stops the process when that folder is missing.
QString resourcesFolder();
// A file in the resources folder.
QString resourcePath(const QString &name);

// Tests point the bundle at a temporary copy; an empty path restores the real one.
void setBundleLocationForTesting(const QString &path);
