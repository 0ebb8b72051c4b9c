#include "platform/PrivateFolder.h"

#include "platform/Error.h"
#include "platform/Paths.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr mode_t ownerOnly = S_IRWXU;

Error posixError(int code, const QString &path)
{
    return Error(QStringLiteral("NSPOSIXErrorDomain"), code,
                 {{Error::descriptionKey, path + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(code))}});
}

void makeFolderIfMissing(const QString &path)
{
    if (::mkdir(QFile::encodeName(path).constData(), ownerOnly) != 0 && errno != EEXIST)
        throw posixError(errno, path);
}
} // namespace

bool isPrivateRuntimeFolder(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path))
        return false;
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    return S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() && (info.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

void makePrivateFolder(const QString &path)
{
    if (!QDir::isAbsolutePath(path) || QDir::cleanPath(path) == QStringLiteral("/"))
        throw posixError(EINVAL, path);
    const QString folder = QDir::cleanPath(path);
    // Parents first, each made 0700 when missing; those that exist are left as they are.
    for (qsizetype slash = folder.indexOf(u'/', 1); slash > 0; slash = folder.indexOf(u'/', slash + 1))
        makeFolderIfMissing(folder.left(slash));
    makeFolderIfMissing(folder);

    const QByteArray name = QFile::encodeName(folder);
    struct stat info;
    if (::lstat(name.constData(), &info) != 0)
        throw posixError(errno, folder);
    if (!S_ISDIR(info.st_mode))
        throw posixError(ENOTDIR, folder);
    if (info.st_uid != ::geteuid())
        throw posixError(EPERM, folder);
    if ((info.st_mode & 07777) != ownerOnly && ::chmod(name.constData(), ownerOnly) != 0)
        throw posixError(errno, folder);
}

QString privateFolder()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isPrivateRuntimeFolder(runtime)) {
        const QString folder = QDir::cleanPath(runtime) + QStringLiteral("/Veldspar");
        try {
            makePrivateFolder(folder);
            return folder;
        } catch (const Error &) {
            // Something else holds the name; the cache folder serves as well.
        }
    }
    const QString cache = cacheFolder();
    makePrivateFolder(cache);
    return cache;
}
