#include "platform/Paths.h"

#include "platform/PrivateFolder.h"

#include <QDir>

QString supportFolder()
{
    return QDir::homePath() + QStringLiteral("/.local/share/Veldspar");
}

QString configFilePath()
{
    return supportFolder() + QStringLiteral("/config.json");
}

QString installedServicePath()
{
    return supportFolder() + QStringLiteral("/Veldspar");
}

QString cacheFolder()
{
    return QDir::homePath() + QStringLiteral("/.cache/org.kestrum.Veldspar.configure");
}

QString userUnitFilePath(const QString &label)
{
    return QDir::homePath() + QStringLiteral("/.config/systemd/user/") + label + QStringLiteral(".service");
}

QString settingsFilePath(const QString &identifier)
{
    return QDir::homePath() + QStringLiteral("/.config/") + identifier + QStringLiteral(".conf");
}

QString liveStateFilePath()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isPrivateRuntimeFolder(runtime))
        return QDir::cleanPath(runtime) + QStringLiteral("/Veldspar/state.json");
    return supportFolder() + QStringLiteral("/state.json");
}
