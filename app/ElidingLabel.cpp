#include "app/ElidingLabel.h"

#include <QFontMetrics>

void ElidingLabel::setFullText(const QString &text, const QString &spoken)
{
    m_fullText = text;
    setAccessibleName(spoken);
    elide();
}

// Any width will do: the text gives way rather than widening the window.
QSize ElidingLabel::minimumSizeHint() const
{
    return {0, QLabel::minimumSizeHint().height()};
}

void ElidingLabel::resizeEvent(QResizeEvent *event)
{
    QLabel::resizeEvent(event);
    elide();
}

void ElidingLabel::elide()
{
    const QString shown = fontMetrics().elidedText(m_fullText, Qt::ElideRight, contentsRect().width());
    if (shown != text())
        setText(shown);
    setToolTip(shown == m_fullText ? QString() : m_fullText);
}
