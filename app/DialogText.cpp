#include "app/DialogText.h"

#include "app/DialogGeometry.h"

#include <QTextDocument>
#include <QTextOption>

DialogText::DialogText(const QString &text, const QFont &font, bool secondary, QWidget *parent) : QTextEdit(parent)
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
    if (secondary)
        palette.setColor(QPalette::Text, palette.color(QPalette::PlaceholderText));
    setPalette(palette);
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

int DialogText::neededHeight() const
{
    document()->setTextWidth(dialogLayoutWidth);
    return dialogLabelHeight(document()->size().height());
}
