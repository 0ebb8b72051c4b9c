#include "app/AppDelegate.h"

#include "app/AppIcon.h"
#include "app/DialogGeometry.h"
#include "app/Fonts.h"

#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QPushButton>

namespace {
// The app's one modal panel: titled, with no window controls. Escape (and any other way of
// rejecting it) cancels only when a Cancel button is shown.
class ModalPanel : public QDialog
{
public:
    ModalPanel(QWidget *parent, bool cancelShown)
        : QDialog(parent, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint), m_cancelShown(cancelShown)
    {
    }

    void reject() override
    {
        if (m_cancelShown)
            done(0);
    }

private:
    bool m_cancelShown;
};

struct TextStyle
{
    int size;
    QFont::Weight weight;
};

QLabel *dialogText(QWidget *panel, const QString &text, TextStyle style, int &height)
{
    auto *label = new QLabel(text, panel);
    label->setTextFormat(Qt::PlainText); // the service's output is shown as printed, never as markup
    const QFont font = systemFont(style.size, style.weight);
    label->setFont(font);
    // Only the 12-point text is secondary.
    if (style.size == 12) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, palette.color(QPalette::PlaceholderText));
        label->setPalette(palette);
    }
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    // The text is laid out 388 wide inside the 396-wide label, 5 below its top.
    label->setContentsMargins((dialogTextWidth - dialogLayoutWidth) / 2, 5, (dialogTextWidth - dialogLayoutWidth) / 2, 5);
    const QRectF laidOut = QFontMetricsF(font).boundingRect(QRectF(0, 0, dialogLayoutWidth, 1000),
                                                            Qt::TextWordWrap | Qt::AlignHCenter, text);
    height = dialogLabelHeight(laidOut.height());
    return label;
}
} // namespace

bool AppDelegate::dialog(const QString &title, const QString &detail, const QString &question, bool cancel,
                         QLineEdit *input)
{
    QMainWindow *main = window.get();
    if (!main)
        qFatal("A dialog was requested before the main window exists");

    ModalPanel panel(main, cancel);
    panel.setWindowTitle(QString());
    panel.setWindowModality(Qt::ApplicationModal);

    auto *icon = new QLabel(&panel);
    icon->setPixmap(appIcon(64));

    QList<QWidget *> stacked;
    QList<int> heights;
    const struct
    {
        const QString &text;
        TextStyle style;
    } texts[] = {
        {title, {15, QFont::DemiBold}},
        {detail, {12, QFont::Normal}},
        {question, {15, QFont::DemiBold}},
    };
    for (const auto &text : texts) {
        if (text.text.isEmpty())
            continue;
        int height = 0;
        stacked << dialogText(&panel, text.text, text.style, height);
        heights << height;
    }
    if (input) {
        input->setParent(&panel);
        stacked << input;
        heights << dialogInputHeight;
    }

    const DialogGeometry geometry = dialogGeometry(heights, input != nullptr, cancel);
    panel.setFixedSize(dialogWidth, geometry.height);
    icon->setGeometry(geometry.icon);
    for (qsizetype i = 0; i < stacked.size(); ++i)
        stacked.at(i)->setGeometry(geometry.views.at(i));

    auto *ok = new QPushButton(QStringLiteral("OK"), &panel);
    ok->setGeometry(geometry.okButton);
    ok->setAutoDefault(false);
    ok->setDefault(true);
    connect(ok, &QPushButton::clicked, this, [this, ok] { acceptDialog(ok); });
    if (cancel) {
        auto *cancelButton = new QPushButton(QStringLiteral("Cancel"), &panel);
        cancelButton->setGeometry(geometry.cancelButton);
        cancelButton->setAutoDefault(false);
        connect(cancelButton, &QPushButton::clicked, this, [this, cancelButton] { cancelDialog(cancelButton); });
    }

    // Centre the panel's content on the window's; move() would place the frame's corner there
    // and leave the content off by the width of the border and the title bar.
    const QPoint middle = main->geometry().center();
    panel.setGeometry(middle.x() - dialogWidth / 2, middle.y() - geometry.height / 2, dialogWidth, geometry.height);
    if (input)
        input->setFocus();

    const int code = panel.exec();
    if (input)
        input->setParent(nullptr); // the caller owns the field and reads it afterwards
    return code == 1;
}

void AppDelegate::alert(const QString &message)
{
    dialog(message, QString(), QString(), false, nullptr);
}

void AppDelegate::acceptDialog(QAbstractButton *sender)
{
    static_cast<QDialog *>(sender->window())->done(1);
}

void AppDelegate::cancelDialog(QAbstractButton *sender)
{
    static_cast<QDialog *>(sender->window())->done(0);
}
