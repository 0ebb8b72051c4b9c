#include "platform/SystemTools.h"

namespace {
QString &pkexecOverride()
{
    static QString path;
    return path;
}
} // namespace

QString pkexecProgram()
{
    return pkexecOverride().isEmpty() ? QStringLiteral("/usr/bin/pkexec") : pkexecOverride();
}

QString bashProgram()
{
    return QStringLiteral("/bin/bash");
}

void setPkexecProgramForTesting(const QString &path)
{
    pkexecOverride() = path;
}
