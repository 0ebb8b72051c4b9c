#include "daemon/Import.h"

#include "daemon/AtomicFile.h"
#include "daemon/Backups.h"
#include "daemon/Configuration.h"
#include "daemon/Failure.h"
#include "daemon/FolderLock.h"
#include "daemon/Log.h"
#include "platform/ConfigurationLimit.h"
#include "platform/RegularFile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <optional>

using namespace Qt::StringLiterals;

namespace {
// Long enough for any real save to finish, short enough that a stuck one is reported.
constexpr int lockWaitMs = 10000;

QByteArray readImported(const QString &file)
{
    const FileContents contents = readRegularFile(file, largestConfigurationFile);
    if (contents.problem != FileContents::Problem::None)
        throw Failure{contents.message};
    return contents.bytes;
}

// The file to replace: configPath itself, or the file it links to, so that a link stays a link.
QString fileToReplace(const QString &configPath)
{
    const QFileInfo info(configPath);
    if (!info.isSymLink())
        return info.absoluteFilePath();
    const QString target = info.canonicalFilePath();
    if (target.isEmpty())
        throw Failure{u"Cannot write %1: it is a link to %2, which does not exist."_s.arg(
            QDir::toNativeSeparators(configPath), QDir::toNativeSeparators(info.symLinkTarget()))};
    return target;
}

// The bytes now at target, or nothing when there is no file yet.
std::optional<QByteArray> currentConfiguration(const QString &target)
{
    const FileContents current = readRegularFile(target, largestConfigurationFile);
    if (current.problem == FileContents::Problem::Missing)
        return std::nullopt;
    if (current.problem == FileContents::Problem::Unreadable)
        throw Failure{u"Cannot read the current configuration %1 to back it up: %2."_s.arg(
            QDir::toNativeSeparators(target), current.reason)};
    if (current.problem != FileContents::Problem::None)
        throw Failure{u"Cannot back up the current configuration: "_s + current.message};
    return current.bytes;
}

// What a save killed half-way leaves behind; only called while holding the folder's lock.
void removeLeftovers(const QString &target, const QString &backups)
{
    removeLeftoverTemporaries(QFileInfo(target).absolutePath(), QRegularExpression::escape(QFileInfo(target).fileName()));
    removeLeftoverTemporaries(backups, backupNamePattern());
}

// The new file is written and synced first; only then is the current one backed up, the new one
// renamed into place, and old backups pruned. A failure at any step leaves the configuration
// and its backups as they were. Returns the backup's path, or nothing when there was no file.
QString replaceConfiguration(const QString &configPath, const QByteArray &bytes)
{
    const QString folder = QFileInfo(configPath).absolutePath();
    if (!QDir().mkpath(folder))
        throw Failure{u"Cannot create the folder %1."_s.arg(QDir::toNativeSeparators(folder))};
    const FolderLock lock(folder, lockWaitMs);

    const QString target = fileToReplace(configPath);
    const QString backups = backupFolderFor(configPath);
    removeLeftovers(target, backups);
    const std::optional<QByteArray> current = currentConfiguration(target);

    const bool madeBackupFolder = current && !QFileInfo(backups).isDir();
    if (madeBackupFolder && !QDir().mkpath(backups))
        throw Failure{u"Cannot back up the current configuration: cannot create the folder %1."_s.arg(
            QDir::toNativeSeparators(backups))};
    QString backup;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    try {
        PendingFile next(target, bytes);
        if (current)
            backup = writeBackup(backups, *current, now);
        next.commit();
    } catch (const Failure &) {
        if (!backup.isEmpty())
            QFile::remove(backup);
        if (madeBackupFolder)
            QDir().rmdir(backups);
        throw;
    }
    if (current)
        pruneBackups(backups, now, keptBackups, QFileInfo(backup).fileName());
    return backup;
}
} // namespace

int runImport(const QString &configPath, const QString &file)
{
    try {
        const QByteArray bytes = readImported(file);
        const auto checked = readConfiguration(bytes);
        if (const QString *problem = std::get_if<QString>(&checked))
            throw Failure{*problem};
        const QString backup = replaceConfiguration(configPath, bytes);
        if (backup.isEmpty())
            printLine(u"Saved %1."_s.arg(QDir::toNativeSeparators(configPath)));
        else
            printLine(u"Saved %1; the previous configuration is in %2."_s.arg(
                QDir::toNativeSeparators(configPath), QDir::toNativeSeparators(backup)));
        return 0;
    } catch (const Failure &failure) {
        logLine(failure.message);
        return 1;
    }
}
