#include "config/StaleDrafts.h"

#include "platform/Paths.h"
#include "platform/PrivateFolder.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <unistd.h>

QStringList draftFolders()
{
    QStringList folders;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isPrivateRuntimeFolder(runtime))
        folders << QDir::cleanPath(runtime) + QStringLiteral("/Veldspar");
    folders << cacheFolder();
    return folders;
}

void removeStaleDrafts(const QStringList &folders)
{
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-staleDraftSeconds);
    for (const QString &folder : folders) {
        const QFileInfoList drafts = QDir(folder).entryInfoList({QStringLiteral("Veldspar-*.json")},
                                                                QDir::Files | QDir::Hidden | QDir::NoSymLinks);
        for (const QFileInfo &draft : drafts)
            if (draft.ownerId() == ::geteuid() && draft.lastModified().toUTC() < before)
                QFile::remove(draft.filePath());
    }
}
