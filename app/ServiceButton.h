#pragma once

#include <QColor>
#include <QPushButton>
#include <QString>

class QPainter;

// The service row's push button, drawn as a tinted rounded rectangle with its title
// centred: green while the service is active, red otherwise. It looks the same whether
// enabled or not; a disabled one only ignores clicks. With keyboard focus it adds a ring in
// the palette's highlight colour just inside its edge.
class ServiceButton : public QPushButton
{
    Q_OBJECT

public:
    explicit ServiceButton(const QString &title, QWidget *parent = nullptr);

    bool active() const { return m_active; }
    // Every assignment, even of the same value, redraws the button.
    void setActive(bool active);

    // What pressing the button does, told to assistive technology as its description; a tool
    // tip, when one is set, follows it there, since the description would otherwise hide it.
    void setPurpose(const QString &purpose);

    QColor tint() const;
    QFont titleFont() const;
    // Where the title's text box starts: centred both ways, negative when wider than the button.
    static QPointF titleOrigin(const QSizeF &bounds, const QSizeF &textSize);

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void describe();
    void drawFocusRing(QPainter &painter) const;

    bool m_active = false;
    QString m_purpose;
};
