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

// The names a swap gives, beside the installed bundle, to a bundle on its way in or out.
const QString incomingSuffix = QStringLiteral("-incoming");
const QString previousSuffix = QStringLiteral("-previous");

QString asideName(const QString &installed, const QString &suffix)
{
    return folderOf(installed) + QStringLiteral("/.") + QFileInfo(installed).fileName() + suffix;
}

} // namespace

// Read by hand rather than with a regular expression: this runs at every start of the app, and
// the expression engine alone would stay in its memory for the whole run.
std::optional<QString> bundleNameSetAside(const QString &fileName)
{
    QStringView rest(fileName);
    if (!rest.startsWith(u'.'))
        return std::nullopt;
    while (!rest.isEmpty() && rest.back() >= u'0' && rest.back() <= u'9')
        rest.chop(1);
    for (const QString &suffix : {incomingSuffix, previousSuffix}) {
        if (rest.size() > suffix.size() + 1 && rest.endsWith(suffix))
            return rest.mid(1, rest.size() - suffix.size() - 1).toString();
    }
    return std::nullopt;
}

namespace {
// The installed bundle for a bundle that a swap had moved aside, otherwise the path itself.
QString installedBundleFor(const QString &bundlePath)
{
    const QFileInfo bundle(bundlePath);
    const std::optional<QString> installed = bundleNameSetAside(bundle.fileName());
    return QDir::cleanPath(installed ? bundle.absolutePath() + u'/' + *installed : bundle.absoluteFilePath());
}

bool isFolder(const QString &path)
{
    struct stat status{};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// What swaps left beside the installed bundle and this user owns, including the numbered
// names that earlier versions of the swap chose.
QStringList swapLeftovers(const QString &installed)
{
    const QString folder = folderOf(installed);
    const QString installedName = QFileInfo(installed).fileName();
    QStringList found;
    const QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        struct stat status{};
        const QString path = folder + u'/' + name;
        if (bundleNameSetAside(name) == installedName && ::lstat(QFile::encodeName(path).constData(), &status) == 0
            && status.st_uid == ::geteuid())
            found << path;
    }
    return found;
}

// An exclusive lock on the folder that holds the bundle while a swap or its recovery renames
// things in it, so that a second start of the app never undoes a swap under way.
class SwapLock
{
public:
    SwapLock(const QString &folder, int waitMs)
        : m_descriptor(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        for (int waited = 0; m_descriptor >= 0 && ::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0; waited += lockPollMs) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || waited >= waitMs) {
                m_busy = errno == EWOULDBLOCK;
                ::close(m_descriptor);
                m_descriptor = -1;
                return;
            }
            ::usleep(lockPollMs * 1000);
        }
    }
    ~SwapLock()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    SwapLock(const SwapLock &) = delete;
    SwapLock &operator=(const SwapLock &) = delete;

    bool held() const { return m_descriptor >= 0; }
    bool busy() const { return m_busy; } // another process holds it

private:
    static constexpr int lockPollMs = 20;
    int m_descriptor;
    bool m_busy = false;
};

// How long a swap waits for another process's recovery to let go of the folder.
constexpr int swapLockWaitMs = 5000;

// Under the swap lock. Whatever step of a swap a crash stopped (see swapBundles), the
// installed name holds a complete bundle, or it is missing and .<name>-previous holds the
// complete old one: so that one is put back (failing that, the complete update waiting as
// .<name>-incoming goes in), and once the installed name holds a bundle every other name is
// a leftover. Each step is a rename or a removal of a leftover, so a crash during recovery
// leaves a state this recovers from too. Returns the leftovers that could not be removed.
QStringList recoverLocked(const QString &installed, const SwapOperations &operations)
{
    if (!QFileInfo::exists(installed) && !QFileInfo(installed).isSymLink()) {
        for (const QString &suffix : {previousSuffix, incomingSuffix}) {
            const QString aside = asideName(installed, suffix);
            if (isFolder(aside) && operations.rename(aside, installed) == 0) {
                qWarning("An update was interrupted; %s was put back from %s", qPrintable(installed), qPrintable(aside));
                break;
            }
        }
    }
    QStringList kept;
    if (!QFileInfo(installed).isDir())
        return kept; // nothing to put back; what is there is all that is left of the app
    const QStringList leftovers = swapLeftovers(installed);
    for (const QString &leftover : leftovers)
        if (!operations.remove(leftover))
            kept << leftover;
    return kept;
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
    // No name filter: QDir turns one into a regular expression, and this runs at every start.
    const QStringList names = QDir(folder).entryList(QDir::Dirs | QDir::Hidden | QDir::NoSymLinks | QDir::NoDotAndDotDot);
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
    operations.remove = removeTree;
    return operations;
}

// The order of the steps keeps this true at every moment, whatever step a crash stops: the
// installed name holds a complete bundle (the old or the new one), or it is missing and
// .<name>-previous holds the complete old bundle, between the two renames of the fallback.
// Bundles only ever move by renaming a whole folder, and a bundle is deleted only after the
// installed name holds the other one. recoverInterruptedSwap relies on it.
void swapBundles(const QString &installed, const QString &staged, const SwapOperations &operations)
{
    const QString folder = folderOf(installed);
    auto failed = [&](const QString &what, int error) {
        return updateError(UpdateErrorCode::InstallationFailed,
                           QStringLiteral("Veldspar could not put the update in place of %1: %2: %3. The installed "
                                          "version was left as it was.")
                               .arg(installed, what, errnoText(error)));
    };
    auto done = [&](SwapStep step) {
        if (operations.stepDone)
            operations.stepDone(step);
    };

    const SwapLock lock(folder, swapLockWaitMs);
    if (lock.busy())
        throw failed(QStringLiteral("another process is changing the folder"), EWOULDBLOCK);
    // The names below must be free, and a bundle an earlier swap left aside is put back first.
    const QStringList kept = recoverLocked(installed, operations);
    if (!kept.isEmpty())
        throw updateError(UpdateErrorCode::NotWritable,
                          QStringLiteral("Veldspar cannot update itself in %1: %2, left by an earlier update, cannot be "
                                         "removed.")
                              .arg(folder, kept.join(QStringLiteral(", "))));

    // The staged bundle first moves beside the installed one, so that the swap itself only
    // renames names within one folder.
    const QString incoming = asideName(installed, incomingSuffix);
    if (const int error = operations.rename(staged, incoming)) {
        if (error == EACCES || error == EPERM || error == EROFS)
            throw updateError(UpdateErrorCode::NotWritable,
                              QStringLiteral("Veldspar cannot update itself in %1: %2.").arg(folder, errnoText(error)));
        throw failed(QStringLiteral("moving the update beside it failed"), error);
    }
    done(SwapStep::UpdateBeside);

    QString old;
    const int exchange = operations.exchange(incoming, installed);
    if (exchange == 0) {
        old = incoming;
        done(SwapStep::Exchanged);
    } else if (exchange == EINVAL || exchange == ENOSYS || exchange == ENOTSUP || exchange == EXDEV) {
        // No atomic exchange here: rename aside, rename in, and put the old one back on failure.
        old = asideName(installed, previousSuffix);
        if (const int error = operations.rename(installed, old)) {
            operations.remove(incoming);
            throw failed(QStringLiteral("moving the installed version aside failed"), error);
        }
        done(SwapStep::InstalledAside);
        if (const int error = operations.rename(incoming, installed)) {
            if (const int restore = operations.rename(old, installed)) {
                throw updateError(UpdateErrorCode::InstallationFailed,
                                  QStringLiteral("Veldspar could not put the update in place of %1: %2, and the "
                                                 "installed version could not be put back from %3: %4.")
                                      .arg(installed, errnoText(error), old, errnoText(restore)));
            }
            operations.remove(incoming);
            throw failed(QStringLiteral("moving the update in failed"), error);
        }
        done(SwapStep::UpdateIn);
    } else {
        operations.remove(incoming);
        throw failed(QStringLiteral("exchanging the two versions failed"), exchange);
    }
    if (!operations.remove(old))
        qWarning("The previous version could not be deleted completely: %s", qPrintable(old));
    done(SwapStep::OldRemoved);
}

QString recoverInterruptedSwap(const QString &bundlePath)
{
    const QString installed = installedBundleFor(bundlePath);
    {
        // Skipped while another process swaps or recovers here: that one finishes the job.
        const SwapLock lock(folderOf(installed), 0);
        if (lock.held()) {
            const QStringList kept = recoverLocked(installed, systemSwapOperations());
            for (const QString &leftover : kept)
                qWarning("What an earlier update left could not be removed: %s", qPrintable(leftover));
        }
    }
    removeAbandonedStagingFolders(installed);
    return QFileInfo(installed).isDir() ? installed : QString();
}
