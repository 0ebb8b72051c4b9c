#include "app/DialogGeometry.h"

#include <cmath>

int dialogLabelHeight(qreal laidOutTextHeight)
{
    return int(std::ceil(laidOutTextHeight)) + 10;
}

DialogGeometry dialogGeometry(const QList<int> &viewHeights, bool hasInput, bool cancel)
{
    DialogGeometry geometry;
    int height = 156;
    for (int viewHeight : viewHeights)
        height += viewHeight + 12;
    geometry.height = height;

    // The layout is defined bottom-up (y from the bottom edge); Qt counts from the top.
    const auto fromBottom = [height](int x, int y, int width, int h) { return QRect(x, height - y - h, width, h); };

    geometry.icon = fromBottom(198, height - 88, 64, 64);

    int cursor = height - 104;
    for (qsizetype i = 0; i < viewHeights.size(); ++i) {
        const int viewHeight = viewHeights.at(i);
        const bool isInput = hasInput && i == viewHeights.size() - 1;
        cursor -= viewHeight;
        geometry.views.append(isInput ? fromBottom(48, cursor, 364, viewHeight)
                                      : fromBottom(32, cursor, dialogTextWidth, viewHeight));
        cursor -= 12;
    }

    geometry.okButton = fromBottom(cancel ? 138 : 186, 20, 88, 32);
    if (cancel)
        geometry.cancelButton = fromBottom(234, 20, 88, 32);
    return geometry;
}
