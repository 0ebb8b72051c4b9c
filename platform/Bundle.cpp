#include "platform/Bundle.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {
QString &bundleOverride()
{
    static QString path;
    return path;
}
} // namespace

QString bundleLocation()
{
    const QString &overridden = bundleOverride();
    return QDir::cleanPath(overridden.isEmpty() ? QCoreApplication::applicationDirPath() : overridden);
}

QString resourcesFolder()
{
    const QString folder = bundleLocation() + QStringLiteral("/Resources");
    if (!QFileInfo(folder).isDir())
        qFatal("The application bundle has no Resources folder: %s", qPrintable(folder));
    return folder;
}

QString resourcePath(const QString &name)
{
    return resourcesFolder() + u'/' + name;
}

void setBundleLocationForTesting(const QString &path)
{
    bundleOverride() = path;
}
