#include "app/AppDelegate.h"

#include "app/AppIcon.h"
#include "app/DialogGeometry.h"
#include "app/DialogText.h"
#include "app/Fonts.h"
#include "platform/WindowTitle.h"

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

DialogText *dialogText(QWidget *panel, const QString &text, TextStyle style)
{
    // Only the 12-point text is secondary.
    return new DialogText(text, systemFont(style.size, style.weight), style.size == 12, panel);
}

// What a screen reader says when the panel opens: the headline as its name, the rest as its
// description, as if the texts had been read from the top.
void describeForAssistiveTechnology(QDialog &panel, const QStringList &texts)
{
    if (texts.isEmpty())
        return;
    panel.setAccessibleName(texts.first());
    panel.setAccessibleDescription(texts.mid(1).join(QLatin1Char('\n')));
}
} // namespace

bool AppDelegate::dialog(const QString &title, const QString &detail, const QString &question, bool cancel,
                         QLineEdit *input)
{
    QMainWindow *main = window.get();
    if (!main)
        qFatal("A dialog was requested before the main window exists");

    ModalPanel panel(main, cancel);
    panel.setWindowModality(Qt::ApplicationModal);

    auto *icon = new QLabel(&panel);
    icon->setPixmap(appIcon(64));

    QList<QWidget *> stacked;
    QList<int> heights;
    QStringList shownTexts;
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
        DialogText *shown = dialogText(&panel, text.text, text.style);
        stacked << shown;
        heights << shown->neededHeight();
        shownTexts << text.text;
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
        // Return presses the button that has the focus, as everywhere on this desktop: with the
        // focus on Cancel it cancels, and OK is the default again once the focus leaves.
        cancelButton->setAutoDefault(true);
        connect(cancelButton, &QPushButton::clicked, this, [this, cancelButton] { cancelDialog(cancelButton); });
    }

    // Centre the panel's content on the window's; move() would place the frame's corner there
    // and leave the content off by the width of the border and the title bar.
    const QPoint middle = main->geometry().center();
    panel.setGeometry(middle.x() - dialogWidth / 2, middle.y() - geometry.height / 2, dialogWidth, geometry.height);
    // The keyboard starts where the answer is given: the field, or else OK, not on a text.
    if (input)
        input->setFocus();
    else
        ok->setFocus();
    describeForAssistiveTechnology(panel, shownTexts);
    showNoWindowTitle(&panel);

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
