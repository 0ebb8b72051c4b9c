#include "app/ElidingLabel.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMenu>

void ElidingLabel::setFullText(const QString &text, const QString &spoken)
{
    m_fullText = text;
    setAccessibleName(spoken);
    elide();
}

QString ElidingLabel::copiedText() const
{
    if (hasSelectedText() && selectedText() == text())
        return m_fullText;
    return selectedText();
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

void ElidingLabel::keyPressEvent(QKeyEvent *event)
{
    if (event->matches(QKeySequence::Copy) && hasSelectedText()) {
        copy();
        event->accept();
        return;
    }
    QLabel::keyPressEvent(event);
}

// The label's own menu would copy the shortened text; this one copies what copiedText says.
void ElidingLabel::contextMenuEvent(QContextMenuEvent *event)
{
    if (!(textInteractionFlags() & Qt::TextSelectableByMouse)) {
        QLabel::contextMenuEvent(event);
        return;
    }
    QMenu menu(this);
    QAction *copyAction = menu.addAction(tr("&Copy"), this, &ElidingLabel::copy);
    copyAction->setEnabled(hasSelectedText());
    menu.addAction(tr("Select All"), this, [this] { setSelection(0, int(text().size())); });
    menu.exec(event->globalPos());
}

void ElidingLabel::elide()
{
    const QString shown = fontMetrics().elidedText(m_fullText, Qt::ElideRight, contentsRect().width());
    if (shown != text())
        setText(shown);
    setToolTip(shown == m_fullText ? QString() : m_fullText);
}

void ElidingLabel::copy() const
{
    QGuiApplication::clipboard()->setText(copiedText());
}
