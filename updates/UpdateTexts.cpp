#include "updates/UpdateTexts.h"

#include <QLocale>

QString formatByteProgress(qint64 received, qint64 expected)
{
    const QLocale locale;
    const QString done = locale.formattedDataSize(received, 1, QLocale::DataSizeSIFormat);
    if (expected < 0)
        return done;
    return QStringLiteral("%1 of %2").arg(done, locale.formattedDataSize(expected, 1, QLocale::DataSizeSIFormat));
}
