#pragma once

#include <QTextEdit>

// One text of the modal panel (headline, detail or question). It wraps between words and, when
// a single word is wider than the line (a host name, a path, a line of service output), inside
// that word, so nothing is clipped. It is read-only but selectable by mouse and keyboard, so an
// error can be copied. Its height is that of the text as laid out here, so what is measured is
// what is shown.
class DialogText : public QTextEdit
{
    Q_OBJECT

public:
    DialogText(const QString &text, const QFont &font, bool secondary, QWidget *parent = nullptr);

    // The height the text needs at the panel's text width: laid out, rounded up, plus 10.
    int neededHeight() const;

protected:
    void changeEvent(QEvent *event) override;

private:
    void takeSecondaryColour();

    bool m_secondary = false;
};
