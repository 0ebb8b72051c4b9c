#pragma once

#include <QLabel>

// A one-line label that cuts a long text at its end with an ellipsis instead of wrapping
// or widening the window.
class StatusLabel : public QLabel
{
    Q_OBJECT

public:
    using QLabel::QLabel;

    // The text as drawn in the current width.
    QString displayedText() const;

    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
};
