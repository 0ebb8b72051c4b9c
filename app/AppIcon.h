#pragma once

#include <QPixmap>

// The app icon from the bundle's Resources/Veldspar.svg, scaled proportionally to fit.
QPixmap appIcon(int size);
