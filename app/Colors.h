#pragma once

#include <QColor>

// The usual Linux desktop semantic colours.
inline QColor successColor() { return QColor(0x27, 0xAE, 0x60); }
inline QColor dangerColor() { return QColor(0xDA, 0x44, 0x53); }
inline QColor warningColor() { return QColor(0xF6, 0x74, 0x00); }
// Neither good nor bad: off, or not known.
inline QColor neutralColor() { return QColor(0x9A, 0x9A, 0x9A); }
