#pragma once

#include <QPixmap>

// Reads the bundle's Resources/Veldspar.svg, once: by the time the uninstall reports leftovers
// the bundle, icon and all, is already in the Trash. Later calls only render what was read.
void readAppIcon();

// The app icon, scaled proportionally to fit.
QPixmap appIcon(int size);
