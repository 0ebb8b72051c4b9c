#pragma once

#include <QString>

// The bundle folder that holds the running executable ("…/Veldspar.app"), cleaned of "."
// and ".." without resolving links.
QString bundleLocation();
// Bundle location + "Resources"; stops the process when that folder is missing.
QString resourcesFolder();
// A file in the resources folder.
QString resourcePath(const QString &name);

// Tests point the bundle at a temporary copy; an empty path restores the real one.
void setBundleLocationForTesting(const QString &path);
