#pragma once

#include <QString>

#include <functional>
#include <memory>

// A hidden folder beside the bundle for one update: the download, the unpacked bundle and,
// briefly, the old bundle. Being on the same filesystem as the bundle is what makes the swap
// a rename. Removed with everything in it when the last owner lets go.
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
    explicit StagingFolder(QString path) : m_path(std::move(path)) {}
    QString m_path;
};

// The two file-system operations the swap is made of, so that a test can make one fail.
// Each returns 0 or an errno value.
struct SwapOperations
{
    std::function<int(const QString &from, const QString &to)> exchange; // both must exist
    std::function<int(const QString &from, const QString &to)> rename;
};
SwapOperations systemSwapOperations();

// Puts the staged bundle where the installed one is. Where the filesystem can exchange two
// names atomically it does; otherwise the installed bundle is renamed aside and the staged
// one renamed in, and the old one is put back if that fails. The old bundle is deleted
// afterwards. Throws Error when the bundle could not be replaced; the installed bundle is
// then as it was.
void swapBundles(const QString &installed, const QString &staged, const SwapOperations &operations = systemSwapOperations());

// Deletes a folder tree, first giving its owner write access to folders that lack it.
bool removeTree(const QString &path);
