#include "platform/SystemTools.h"

namespace {
QString &systemctlOverride()
{
    static QString path;
    return path;
}

QString &pkexecOverride()
{
    static QString path;
    return path;
}
} // namespace

QString systemctlProgram()
{
    return systemctlOverride().isEmpty() ? QStringLiteral("/usr/bin/systemctl") : systemctlOverride();
}

QString pkexecProgram()
{
    return pkexecOverride().isEmpty() ? QStringLiteral("/usr/bin/pkexec") : pkexecOverride();
}

QString bashProgram()
{
    return QStringLiteral("/bin/bash");
}

void setSystemctlProgramForTesting(const QString &path)
{
    systemctlOverride() = path;
}

void setPkexecProgramForTesting(const QString &path)
{
    pkexecOverride() = path;
}
