#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <optional>

// A hidden folder beside the bundle for one update: the download, the unpacked bundle and,
// briefly, the old bundle. Being on the same filesystem as the bundle is what makes the swap
// a rename. Removed with everything in it when the last owner lets go. While it lives it
// holds a lock on its folder, which tells the clean-up below that the folder is in use.
class StagingFolder
{
public:
    // Throws Error "Veldspar cannot update itself in <folder>: <reason>." when the folder that
    // holds the bundle does not let this process create anything in it.
    static std::shared_ptr<StagingFolder> create(const QString &bundlePath);
    ~StagingFolder();

    StagingFolder(const StagingFolder &) = delete;
    StagingFolder &operator=(const StagingFolder &) = delete;

    QString path() const { return m_path; }
    QString archivePath() const { return m_path + QStringLiteral("/download"); }
    QString unpackedPath() const { return m_path + QStringLiteral("/unpacked"); }

private:
    StagingFolder(QString path, int lock) : m_path(std::move(path)), m_lock(lock) {}
    QString m_path;
    int m_lock; // an open descriptor of the folder, locked
};

// Removes the staging folders that a quit or a crash during an earlier update left beside
// the bundle: only folders named as StagingFolder::create names them, owned by this user
// and not in use by a StagingFolder of this or another process.
void removeAbandonedStagingFolders(const QString &bundlePath);

// The name of the installed bundle that a swap set aside under this file name:
// ".<name>-incoming" or ".<name>-previous", perhaps numbered as earlier versions did; nothing
// for any other name.
std::optional<QString> bundleNameSetAside(const QString &fileName);

// The steps of a swap, in order, as the progress callback below names them.
enum class SwapStep {
    UpdateBeside,    // the staged bundle was renamed to .<name>-incoming beside the installed one
    Exchanged,       // the two were exchanged: the old bundle is now .<name>-incoming
    InstalledAside,  // no exchange here: the installed bundle was renamed to .<name>-previous
    UpdateIn,        // ... and .<name>-incoming renamed to <name>
    OldRemoved,      // the old bundle was deleted: the swap is complete
};

// The file-system operations the swap is made of, so that a test can make one fail, or stop
// the process between two steps. Each of the first two returns 0 or an errno value.
struct SwapOperations
{
    std::function<int(const QString &from, const QString &to)> exchange; // both must exist
    std::function<int(const QString &from, const QString &to)> rename;
    std::function<bool(const QString &path)> remove; // a whole folder tree
    std::function<void(SwapStep step)> stepDone;     // may be empty
};
SwapOperations systemSwapOperations();

// Puts the staged bundle where the installed one is. Where the filesystem can exchange two
// names atomically it does; otherwise the installed bundle is renamed aside and the staged
// one renamed in, and the old one is put back if that fails. The old bundle is deleted
// afterwards. An earlier swap that a crash cut short is first finished or undone
// (recoverInterruptedSwap). Throws Error when the bundle could not be replaced; the installed
// bundle is then as it was.
void swapBundles(const QString &installed, const QString &staged, const SwapOperations &operations = systemSwapOperations());

// Finishes or undoes a swap that a crash cut short and removes what it left beside the
// bundle, unless another process is swapping or recovering there right now. bundlePath is
// the installed bundle or, when the app was started from one, a bundle the swap had moved
// aside (.<name>-previous, .<name>-incoming). Returns the installed bundle's path when a
// bundle is there afterwards, otherwise an empty string.
QString recoverInterruptedSwap(const QString &bundlePath);

// Deletes a folder tree, first giving its owner write access to folders that lack it.
bool removeTree(const QString &path);
