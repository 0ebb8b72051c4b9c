#include "app/ServiceButton.h"

#include "app/Colors.h"
#include "app/Fonts.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>

ServiceButton::ServiceButton(const QString &title, QWidget *parent) : QPushButton(title, parent)
{
}

void ServiceButton::setActive(bool active)
{
    m_active = active;
    update();
}

void ServiceButton::setPurpose(const QString &purpose)
{
    m_purpose = purpose;
    describe();
}

void ServiceButton::describe()
{
    const QString tip = toolTip();
    setAccessibleDescription(tip.isEmpty() ? m_purpose : m_purpose + QStringLiteral(" ") + tip);
}

bool ServiceButton::event(QEvent *event)
{
    if (event->type() == QEvent::ToolTipChange)
        describe();
    return QPushButton::event(event);
}

QColor ServiceButton::tint() const
{
    return m_active ? successColor() : dangerColor();
}

QFont ServiceButton::titleFont() const
{
    return systemFont(13, QFont::DemiBold);
}

QPointF ServiceButton::titleOrigin(const QSizeF &bounds, const QSizeF &textSize)
{
    return {(bounds.width() - textSize.width()) * 0.5, (bounds.height() - textSize.height()) * 0.5};
}

void ServiceButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);

    QColor fill = tint();
    fill.setAlphaF(0.13f);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 7, 7);
    painter.fillPath(shape, fill);

    const QFont font = titleFont();
    const QString title = text();
    const QFontMetricsF metrics(font);
    const QSizeF textSize(metrics.horizontalAdvance(title), metrics.height());
    painter.setFont(font);
    painter.setPen(tint());
    painter.drawText(QRectF(titleOrigin(size(), textSize), textSize), Qt::TextDontClip | Qt::TextSingleLine,
                     title);

    if (hasFocus())
        drawFocusRing(painter);
}

// Two pixels wide along the edge, over the outermost pixel of the fill and clear of the title.
void ServiceButton::drawFocusRing(QPainter &painter) const
{
    QPen pen(palette().color(QPalette::Highlight), 2);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 7, 7);
}
