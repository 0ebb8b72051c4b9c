#include "service/UninstallRules.h"

#include "platform/Files.h"

#include <QFileInfo>
#include <QUuid>

bool isInstalledAppLocation(const QString &bundleLocation)
{
    return QFileInfo(bundleLocation).fileName() == QStringLiteral("Veldspar.app");
}

const QStringList &uninstallDataPaths()
{
    static const QStringList paths = {
        QStringLiteral(".local/share/Veldspar"),
        QStringLiteral(".local/share/Palisade"),
        QStringLiteral(".cache/org.kestrum.Veldspar.configure"),
        QStringLiteral(".cache/org.kestrum.veldspar.configure"),
        QStringLiteral(".local/state/org.kestrum.Veldspar.configure"),
        QStringLiteral(".local/state/org.kestrum.veldspar.configure"),
        QStringLiteral(".config/org.kestrum.Veldspar.configure.conf"),
        QStringLiteral(".config/org.kestrum.veldspar.configure.conf"),
        QStringLiteral(".local/share/applications/org.kestrum.Veldspar.configure.desktop"),
        QStringLiteral(".local/share/icons/hicolor/scalable/apps/org.kestrum.Veldspar.configure.svg"),
        QStringLiteral(".local/share/metainfo/org.kestrum.Veldspar.configure.metainfo.xml"),
    };
    return paths;
}

const QStringList &settingsIdentifiers()
{
    static const QStringList identifiers = {QStringLiteral("org.kestrum.Veldspar.configure"),
                                            QStringLiteral("org.kestrum.veldspar.configure")};
    return identifiers;
}

QStringList removeUninstallData(const QString &home)
{
    QStringList failures;
    for (const QString &relative : uninstallDataPaths()) {
        const QString path = home + u'/' + relative;
        if (pathExists(path) && !removePath(path))
            failures << relative;
    }
    return failures;
}

QString trashedAppName()
{
    return QStringLiteral("Veldspar-") + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()
           + QStringLiteral(".app");
}

QStringList privilegedMoveArguments(const QString &app, const QString &destination)
{
    return {QStringLiteral("/bin/mv"), QStringLiteral("-n"), QStringLiteral("--"), app, destination};
}
