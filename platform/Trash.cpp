#include "platform/Trash.h"

#include <QDir>
#include <QFile>
#include <QUrl>

QString trashFolder()
{
    return QDir::homePath() + QStringLiteral("/.local/share/Trash");
}

QString trashFilesFolder()
{
    return trashFolder() + QStringLiteral("/files");
}

QString trashInfoFolder()
{
    return trashFolder() + QStringLiteral("/info");
}

QString trashInfoPath(const QString &trashedName)
{
    return trashInfoFolder() + u'/' + trashedName + QStringLiteral(".trashinfo");
}

bool makeTrashFolders()
{
    return QDir().mkpath(trashFilesFolder()) && QDir().mkpath(trashInfoFolder());
}

bool moveToTrash(const QString &path)
{
    if (!makeTrashFolders())
        return false;
    return QFile::moveToTrash(path);
}

QByteArray trashInfo(const QString &originalPath, const QDateTime &deletedAt)
{
    // The Trash format wants the path's bytes URL-escaped, with "/" left as it is.
    return "[Trash Info]\nPath=" + QUrl::toPercentEncoding(originalPath, "/")
           + "\nDeletionDate=" + deletedAt.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")).toUtf8() + '\n';
}
