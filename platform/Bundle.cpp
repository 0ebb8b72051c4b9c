#include "platform/Bundle.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace {
QString &bundleOverride()
{
    static QString path;
    return path;
}

// The bundle location as the program was started, worked out once at start-up; empty when
// the start-up gave nothing that leads to the running executable.
QString &startedLocation()
{
    static QString path;
    return path;
}

bool isSameFile(const QString &first, const QString &second)
{
    struct stat a;
    struct stat b;
    return ::stat(QFile::encodeName(first).constData(), &a) == 0
           && ::stat(QFile::encodeName(second).constData(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The working folder as the shell that started us names it: $PWD keeps the links that the
// kernel's own answer resolves, and is believed only while it is the same folder.
QString workingFolderAsStarted()
{
    const QString current = QDir::currentPath();
    const QString named = qEnvironmentVariable("PWD");
    if (QDir::isAbsolutePath(named) && isSameFile(named, current))
        return QDir::cleanPath(named);
    return current;
}

bool isExecutableFile(const QString &path)
{
    return QFileInfo(path).isFile() && ::access(QFile::encodeName(path).constData(), X_OK) == 0;
}

// argv[0] made absolute the way the system found it: a name with a slash against the working
// folder, a bare name through PATH (an empty entry being the working folder).
QString executableAsStarted(const QString &program, const QString &workingFolder)
{
    if (program.isEmpty())
        return QString();
    const QDir working(workingFolder);
    if (program.contains(u'/'))
        return QDir::cleanPath(working.absoluteFilePath(program));
    const QStringList entries = qEnvironmentVariable("PATH").split(u':');
    for (const QString &entry : entries) {
        const QString candidate = QDir::cleanPath(working.absoluteFilePath(entry) + u'/' + program);
        if (isExecutableFile(candidate))
            return candidate;
    }
    return QString();
}

// Follows links of the file itself (a launcher's link to the executable), leaving every link
// among the folders on the way as it is.
QString followFileLinks(QString path)
{
    for (int hop = 0; hop < 40; ++hop) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(QFile::encodeName(path).constData(), target, sizeof target);
        if (length < 0 || length == ssize_t(sizeof target))
            return path;
        const QString linked = QFile::decodeName(QByteArray(target, length));
        path = QDir::cleanPath(QDir(QFileInfo(path).path()).absoluteFilePath(linked));
    }
    return path;
}

void recordStartedLocation()
{
    const QString executable = followFileLinks(
        executableAsStarted(QCoreApplication::arguments().value(0), workingFolderAsStarted()));
    // A launcher may pass any name at all; only one that leads to the running program counts.
    if (!executable.isEmpty() && isSameFile(executable, QCoreApplication::applicationFilePath()))
        startedLocation() = QFileInfo(executable).path();
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(recordStartedLocation)

QString bundleLocation()
{
    const QString &overridden = bundleOverride();
    if (!overridden.isEmpty())
        return QDir::cleanPath(overridden);
    const QString &started = startedLocation();
    return QDir::cleanPath(started.isEmpty() ? QCoreApplication::applicationDirPath() : started);
}

QString resourcesFolder()
{
    const QString folder = bundleLocation() + QStringLiteral("/Resources");
    if (!QFileInfo(folder).isDir())
        qFatal("The application bundle has no Resources folder: %s", qPrintable(folder));
    return folder;
}

QString resourcePath(const QString &name)
{
    return resourcesFolder() + u'/' + name;
}

void setBundleLocationForTesting(const QString &path)
{
    bundleOverride() = path;
}
