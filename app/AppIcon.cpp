#include "app/AppIcon.h"

#include "platform/Bundle.h"
#include "platform/Files.h"

#include <QGuiApplication>
#include <QPainter>
#include <QSvgRenderer>

namespace {
const QByteArray &appIconSvg()
{
    static const QByteArray svg = readWholeFile(resourcePath(QStringLiteral("Veldspar.svg"))).value_or(QByteArray());
    return svg;
}
} // namespace

void readAppIcon()
{
    appIconSvg();
}

QPixmap appIcon(int size)
{
    const QByteArray &svg = appIconSvg();

    const qreal ratio = qApp ? qApp->devicePixelRatio() : 1.0;
    QPixmap pixmap(QSize(size, size) * ratio);
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);

    QSvgRenderer renderer(svg);
    renderer.setAspectRatioMode(Qt::KeepAspectRatio);
    QPainter painter(&pixmap);
    renderer.render(&painter, QRectF(0, 0, size, size));
    return pixmap;
}
