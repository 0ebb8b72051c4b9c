#include "platform/Paths.h"

#include <QDir>

QString supportFolder()
{
    return QDir::homePath() + QStringLiteral("/.local/share/Veldspar");
}

QString configFilePath()
{
    return supportFolder() + QStringLiteral("/config.json");
}
