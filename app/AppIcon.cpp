#include "app/AppIcon.h"

#include "platform/Bundle.h"

#include <QGuiApplication>
#include <QPainter>
#include <QSvgRenderer>

QPixmap appIcon(int size)
{
    const qreal ratio = qApp ? qApp->devicePixelRatio() : 1.0;
    QPixmap pixmap(QSize(size, size) * ratio);
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);

    QSvgRenderer renderer(resourcePath(QStringLiteral("Veldspar.svg")));
    renderer.setAspectRatioMode(Qt::KeepAspectRatio);
    QPainter painter(&pixmap);
    renderer.render(&painter, QRectF(0, 0, size, size));
    return pixmap;
}
