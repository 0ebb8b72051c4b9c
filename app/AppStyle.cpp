#include "app/AppStyle.h"

#include <QApplication>
#include <QIconEngine>
#include <QPainter>
#include <QPointer>

namespace {
// An icon made on first use: painting, a pixmap or a size asks for it.
class IconOnFirstUse : public QIconEngine
{
public:
    explicit IconOnFirstUse(std::function<QIcon()> make) : m_make(std::move(make)) {}

    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode, QIcon::State state) override
    {
        icon().paint(painter, rect, Qt::AlignCenter, mode, state);
    }
    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state) override
    {
        return icon().pixmap(size, mode, state);
    }
    QPixmap scaledPixmap(const QSize &size, QIcon::Mode mode, QIcon::State state, qreal scale) override
    {
        return icon().pixmap(size, scale, mode, state);
    }
    QSize actualSize(const QSize &size, QIcon::Mode mode, QIcon::State state) override
    {
        return icon().actualSize(size, mode, state);
    }
    QList<QSize> availableSizes(QIcon::Mode mode, QIcon::State state) override
    {
        return icon().availableSizes(mode, state);
    }
    bool isNull() override { return icon().isNull(); }
    QString key() const override { return QStringLiteral("IconOnFirstUse"); }
    // A copy takes what is there: the recipe while the icon is still to be made, else the icon.
    QIconEngine *clone() const override
    {
        auto *copy = new IconOnFirstUse(m_make);
        copy->m_icon = m_icon;
        return copy;
    }

private:
    QIcon &icon()
    {
        if (m_make)
            m_icon = std::exchange(m_make, nullptr)();
        return m_icon;
    }

    std::function<QIcon()> m_make;
    QIcon m_icon;
};
} // namespace

QIcon AppStyle::standardIcon(StandardPixmap which, const QStyleOption *option, const QWidget *widget) const
{
    if (which != SP_ToolBarHorizontalExtensionButton && which != SP_ToolBarVerticalExtensionButton)
        return QProxyStyle::standardIcon(which, option, widget);
    // The option and the widget may be gone by the time it is drawn; the arrow's direction
    // follows the application's layout direction, as it does without them.
    return QIcon(new IconOnFirstUse([style = QPointer<QStyle>(baseStyle()), which] {
        return style ? style->standardIcon(which) : QIcon();
    }));
}

void installAppStyle()
{
    static bool installed = false;
    if (std::exchange(installed, true))
        return;
    QApplication::setStyle(new AppStyle);
}
