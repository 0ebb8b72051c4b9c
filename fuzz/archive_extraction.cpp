// An update archive unpacked the way an update is staged, into a fresh empty folder. Whatever
// the archive holds, afterwards nothing exists beside that folder or above it, every link
// inside resolves inside it, and it holds only files, folders and links, no hard links and
// no set-id bits.

#include "FuzzSupport.h"

#include "platform/Error.h"
#include "updates/Archive.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// base/outer/tree: the archive goes into tree; base and outer must hold nothing else after.
QString base;

QString outer()
{
    return base + QStringLiteral("/outer");
}

QString tree()
{
    return outer() + QStringLiteral("/tree");
}

QStringList entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

bool inside(const QString &path, const QString &root)
{
    return path == root || path.startsWith(root + u'/');
}

void expectLinkInside(const QString &link, const QString &root)
{
    const QByteArray name = QFile::encodeName(link);
    char target[4096];
    const ssize_t length = ::readlink(name.constData(), target, sizeof target);
    expect(length > 0, "a link can be read", link);
    const QString text = QFile::decodeName(QByteArray(target, length));
    expect(!QDir::isAbsolutePath(text), "no link is absolute", link + QStringLiteral(" -> ") + text);
    const QString lexical = QDir::cleanPath(QFileInfo(link).path() + u'/' + text);
    expect(inside(lexical, root), "every link points inside the folder", link + QStringLiteral(" -> ") + text);
    const QString resolved = QFileInfo(link).canonicalFilePath();
    expect(resolved.isEmpty() || inside(resolved, QFileInfo(root).canonicalFilePath()),
           "every link resolves inside the folder", link + QStringLiteral(" -> ") + resolved);
}

void expectContained()
{
    expect(entriesOf(base) == QStringList{QStringLiteral("outer")}, "nothing is created beside the folder's parent",
           entriesOf(base).join(u' '));
    expect(entriesOf(outer()) == QStringList{QStringLiteral("tree")}, "nothing is created beside the folder",
           entriesOf(outer()).join(u' '));
    QDirIterator it(tree(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        struct stat status {};
        expect(::lstat(QFile::encodeName(path).constData(), &status) == 0, "every entry can be examined", path);
        expect(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode),
               "only files, folders and links are unpacked", path);
        expect((status.st_mode & (S_ISUID | S_ISGID)) == 0, "no set-id bits", path);
        if (S_ISREG(status.st_mode))
            expect(status.st_nlink == 1, "no hard links", path);
        if (S_ISLNK(status.st_mode))
            expectLinkInside(path, tree());
    }
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    base = QDir::tempPath() + QStringLiteral("/veldspar-fuzz-archive-%1").arg(::getpid());
    QDir(base).removeRecursively();
    expect(QDir().mkpath(outer()), "the scratch folder can be made", outer());
    // A tiny archive may unpack to a huge file: bound what one input can write, and let the
    // write fail instead of the process.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit fileSize{16 << 20, 16 << 20};
    ::setrlimit(RLIMIT_FSIZE, &fileSize);
    std::atexit([] { QDir(base).removeRecursively(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    expect(QDir().mkpath(tree()), "the destination can be made", tree());
    try {
        extractArchive(fuzzBytes(data, size), tree());
    } catch (const Error &) {
    }
    expectContained();
    expect(QDir(tree()).removeRecursively(), "the unpacked tree can be removed", tree());
    return 0;
}
