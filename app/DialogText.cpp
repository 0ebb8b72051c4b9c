#include "app/DialogText.h"

#include "app/DialogGeometry.h"

#include <QEvent>
#include <QTextDocument>
#include <QTextOption>

DialogText::DialogText(const QString &text, const QFont &font, bool secondary, QWidget *parent)
    : QTextEdit(parent), m_secondary(secondary)
{
    setFrameShape(QFrame::NoFrame);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setReadOnly(true);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    setFocusPolicy(Qt::StrongFocus);
    setFont(font);
    document()->setDefaultFont(font);

    // Looks like a label: no field background, and the secondary text colour where asked.
    QPalette palette = this->palette();
    palette.setColor(QPalette::Base, Qt::transparent);
    setPalette(palette);
    takeSecondaryColour();
    viewport()->setAutoFillBackground(false);

    // Laid out 388 wide, 4 in from each side of the 396-wide box and 5 below its top.
    document()->setDocumentMargin(0);
    setViewportMargins((dialogTextWidth - dialogLayoutWidth) / 2, 5, (dialogTextWidth - dialogLayoutWidth) / 2, 5);
    setLineWrapMode(QTextEdit::FixedPixelWidth);
    setLineWrapColumnOrWidth(dialogLayoutWidth);
    QTextOption option = document()->defaultTextOption();
    option.setAlignment(Qt::AlignHCenter);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    document()->setDefaultTextOption(option);
    setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);

    // Plain text always: a service's output is shown as printed, never as markup.
    setPlainText(text);
}

// The text is drawn in the Text role, so the secondary colour is copied into it, and copied
// again whenever the desktop's colour scheme changes the palette.
void DialogText::takeSecondaryColour()
{
    const QColor secondary = palette().color(QPalette::PlaceholderText);
    if (!m_secondary || palette().color(QPalette::Text) == secondary)
        return;
    QPalette palette = this->palette();
    palette.setColor(QPalette::Text, secondary);
    setPalette(palette);
}

void DialogText::changeEvent(QEvent *event)
{
    QTextEdit::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        takeSecondaryColour();
}

int DialogText::neededHeight() const
{
    document()->setTextWidth(dialogLayoutWidth);
    return dialogLabelHeight(document()->size().height());
}
