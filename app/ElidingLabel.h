#pragma once

#include <QLabel>

// A one-line label that shows as much of its text as fits and ends it with "…"; the whole text
// stays in its tool tip and its accessible name. Used where the panel has no room for a second
// line and the text's length is not ours to choose (names of a radio's clients).
class ElidingLabel : public QLabel
{
    Q_OBJECT

public:
    using QLabel::QLabel;

    void setFullText(const QString &text, const QString &spoken);
    QString fullText() const { return m_fullText; }
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void elide();

    QString m_fullText;
};
