#include "app/Fonts.h"

#include <QApplication>

QFont systemFont(int size, QFont::Weight weight)
{
    QFont font = QApplication::font();
    font.setPixelSize(size);
    font.setWeight(weight);
    return font;
}
