#pragma once

#include <QFont>

// The system font at a size given in points of the window's design. Every distance of the
// window and the dialogs is fixed in pixels, one pixel a point, so the text is sized in the
// same unit: in Qt's points (1.33 px each at 96 dpi) it would outgrow the fixed boxes it
// was measured for, clipping the details panel and the service button's title.
QFont systemFont(int size, QFont::Weight weight = QFont::Normal);
