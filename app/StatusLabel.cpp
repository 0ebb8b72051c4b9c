#include "app/StatusLabel.h"

#include <QPainter>

QString StatusLabel::displayedText() const
{
    return fontMetrics().elidedText(text(), Qt::ElideRight, contentsRect().width());
}

QSize StatusLabel::minimumSizeHint() const
{
    return {0, fontMetrics().height()};
}

QSize StatusLabel::sizeHint() const
{
    return {fontMetrics().horizontalAdvance(text()), fontMetrics().height()};
}

void StatusLabel::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    painter.drawText(contentsRect(), int(alignment()) | Qt::TextSingleLine, displayedText());
}
