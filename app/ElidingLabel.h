#pragma once

#include <QLabel>

// A one-line label that shows as much of its text as fits and ends it with "…"; the whole text
// stays in its tool tip and its accessible name. Used where the panel has no room for a second
// line and the text's length is not ours to choose (names and values that come from radios).
// Copying a selection of everything shown copies the whole text, not its shortened form.
class ElidingLabel : public QLabel
{
    Q_OBJECT

public:
    using QLabel::QLabel;

    void setFullText(const QString &text, const QString &spoken);
    QString fullText() const { return m_fullText; }
    // What Copy puts on the clipboard: the selection, or the whole text when all is selected.
    QString copiedText() const;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    void elide();
    void copy() const;

    QString m_fullText;
};
