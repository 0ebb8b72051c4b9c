#include "updates/BundleSwap.h"

#include "updates/UpdateErrors.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString folderOf(const QString &path)
{
    return QFileInfo(path).absolutePath();
}

QString uniqueSibling(const QString &base, const QString &suffix)
{
    QString candidate = base + suffix;
    for (int n = 2; QFileInfo::exists(candidate) || QFileInfo(candidate).isSymLink(); ++n)
        candidate = base + suffix + QString::number(n);
    return candidate;
}


QString stagingPrefix(const QString &bundlePath)
{
    return QStringLiteral(".") + QFileInfo(bundlePath).fileName() + QStringLiteral("-update-");
}

// What mkdtemp puts in place of "XXXXXX".
bool isStagingSuffix(const QString &suffix)
{
    if (suffix.size() != 6)
        return false;
    for (const QChar c : suffix)
        if (!(c.isDigit() || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z')))
            return false;
    return true;
}

// An open, exclusively locked descriptor of the folder at path, or -1 with errno set when it
// is locked already or path no longer names the folder that was opened.
int lockFolder(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    const int descriptor = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0)
        return -1;
    int error = 0;
    struct stat opened{};
    struct stat named{};
    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 || ::fstat(descriptor, &opened) != 0)
        error = errno;
    else if (::lstat(name.constData(), &named) != 0 || opened.st_dev != named.st_dev || opened.st_ino != named.st_ino)
        error = ENOENT; // removed (or replaced) after it was opened
    if (error == 0)
        return descriptor;
    ::close(descriptor);
    errno = error;
    return -1;
}
} // namespace

std::shared_ptr<StagingFolder> StagingFolder::create(const QString &bundlePath)
{
    const QString folder = folderOf(bundlePath);
    // Another run's clean-up may take a new folder before it is locked: then try another.
    for (int attempt = 1;; ++attempt) {
        QByteArray pattern = QFile::encodeName(folder + u'/' + stagingPrefix(bundlePath) + QStringLiteral("XXXXXX"));
        int lock = -1;
        if (mkdtemp(pattern.data()))
            lock = lockFolder(QFile::decodeName(pattern));
        if (lock >= 0)
            return std::shared_ptr<StagingFolder>(new StagingFolder(QFile::decodeName(pattern), lock));
        const int error = errno;
        if (attempt == 3 || error != ENOENT)
            throw updateError(UpdateErrorCode::NotWritable,
                              QStringLiteral("Veldspar cannot update itself in %1: %2.").arg(folder, errnoText(error)));
    }
}

StagingFolder::~StagingFolder()
{
    // Removed while still locked, so that no clean-up works on it at the same time.
    if (!removeTree(m_path))
        qWarning("Could not remove the update staging folder %s", qPrintable(m_path));
    ::close(m_lock);
}

void removeAbandonedStagingFolders(const QString &bundlePath)
{
    const QString folder = folderOf(bundlePath);
    const QString prefix = stagingPrefix(bundlePath);
    const QStringList names = QDir(folder).entryList({prefix + u'*'}, QDir::Dirs | QDir::Hidden | QDir::NoSymLinks | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        if (!name.startsWith(prefix) || !isStagingSuffix(name.mid(prefix.size())))
            continue;
        const QString path = folder + u'/' + name;
        struct stat status{};
        if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISDIR(status.st_mode)
            || status.st_uid != ::geteuid())
            continue;
        const int lock = lockFolder(path);
        if (lock < 0)
            continue; // in use
        if (!removeTree(path))
            qWarning("Could not remove the abandoned update staging folder %s", qPrintable(path));
        ::close(lock);
    }
}

bool removeTree(const QString &path)
{
    const QFileInfo root(path);
    if (!root.exists() && !root.isSymLink())
        return true;
    if (root.isSymLink() || !root.isDir())
        return QFile::remove(path);
    QFile::setPermissions(path, QFile::permissions(path) | QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QDirIterator folders(path, QDir::Dirs | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (folders.hasNext()) {
        const QString folder = folders.next();
        if (!QFileInfo(folder).isSymLink())
            QFile::setPermissions(folder, QFile::permissions(folder) | QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    return QDir(path).removeRecursively();
}

SwapOperations systemSwapOperations()
{
    SwapOperations operations;
    operations.exchange = [](const QString &from, const QString &to) {
        return ::renameat2(AT_FDCWD, QFile::encodeName(from).constData(), AT_FDCWD, QFile::encodeName(to).constData(),
                           RENAME_EXCHANGE) == 0
            ? 0
            : errno;
    };
    operations.rename = [](const QString &from, const QString &to) {
        return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0 ? 0 : errno;
    };
    return operations;
}

void swapBundles(const QString &installed, const QString &staged, const SwapOperations &operations)
{
    const QString folder = folderOf(installed);
    auto failed = [&](const QString &what, int error) {
        return updateError(UpdateErrorCode::InstallationFailed,
                           QStringLiteral("Veldspar could not put the update in place of %1: %2: %3. The installed "
                                          "version was left as it was.")
                               .arg(installed, what, errnoText(error)));
    };

    // The staged bundle first moves beside the installed one, so that the swap itself only
    // renames names within one folder.
    const QString hidden = folder + QStringLiteral("/.") + QFileInfo(installed).fileName();
    const QString incoming = uniqueSibling(hidden, QStringLiteral("-incoming"));
    if (const int error = operations.rename(staged, incoming)) {
        if (error == EACCES || error == EPERM || error == EROFS)
            throw updateError(UpdateErrorCode::NotWritable,
                              QStringLiteral("Veldspar cannot update itself in %1: %2.").arg(folder, errnoText(error)));
        throw failed(QStringLiteral("moving the update beside it failed"), error);
    }

    QString old;
    const int exchange = operations.exchange(incoming, installed);
    if (exchange == 0) {
        old = incoming;
    } else if (exchange == EINVAL || exchange == ENOSYS || exchange == ENOTSUP || exchange == EXDEV) {
        // No atomic exchange here: rename aside, rename in, and put the old one back on failure.
        old = uniqueSibling(hidden, QStringLiteral("-previous"));
        if (const int error = operations.rename(installed, old)) {
            removeTree(incoming);
            throw failed(QStringLiteral("moving the installed version aside failed"), error);
        }
        if (const int error = operations.rename(incoming, installed)) {
            if (const int restore = operations.rename(old, installed)) {
                throw updateError(UpdateErrorCode::InstallationFailed,
                                  QStringLiteral("Veldspar could not put the update in place of %1: %2, and the "
                                                 "installed version could not be put back from %3: %4.")
                                      .arg(installed, errnoText(error), old, errnoText(restore)));
            }
            removeTree(incoming);
            throw failed(QStringLiteral("moving the update in failed"), error);
        }
    } else {
        removeTree(incoming);
        throw failed(QStringLiteral("exchanging the two versions failed"), exchange);
    }
    if (!removeTree(old))
        qWarning("The previous version could not be deleted completely: %s", qPrintable(old));
}
