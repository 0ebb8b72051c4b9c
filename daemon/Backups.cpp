#include "daemon/Backups.h"

#include "daemon/AtomicFile.h"
#include "daemon/Failure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {
const QString backupFolderName = u"backups"_s;
const QString stampFormat = u"yyyy-MM-dd'T'HH-mm-ss.zzz"_s;

QString backupName(const QDateTime &time) { return u"config-"_s + time.toUTC().toString(stampFormat) + u"Z.json"_s; }

QDateTime timeOf(const QString &name)
{
    const QDateTime stamp = QDateTime::fromString(name.mid(7, 23), stampFormat);
    return QDateTime(stamp.date(), stamp.time(), Qt::UTC);
}

// Fixed-width UTC names: the alphabetical order is the order of age.
QStringList backupsOldestFirst(const QString &folder)
{
    static const QRegularExpression pattern(u"^"_s + backupNamePattern() + u'$');
    QStringList backups;
    for (const QString &name : QDir(folder).entryList(QDir::Files, QDir::Name))
        if (pattern.match(name).hasMatch())
            backups << name;
    return backups;
}

// The newest backup of each of the last backupDays days up to now's.
QSet<QString> newestOfEachRecentDay(const QStringList &oldestFirst, const QDateTime &now)
{
    const QDate today = now.toUTC().date();
    const QDate firstDay = today.addDays(1 - backupDays);
    QMap<QDate, QString> newestOfDay;
    for (const QString &name : oldestFirst) {
        const QDate day = timeOf(name).date();
        if (day.isValid() && day >= firstDay && day <= today)
            newestOfDay.insert(day, name); // a later one of the same day replaces it
    }
    QSet<QString> newest;
    for (const QString &name : std::as_const(newestOfDay))
        newest.insert(name);
    return newest;
}
} // namespace

QString backupFolderFor(const QString &configPath) { return QFileInfo(configPath).absolutePath() + u'/' + backupFolderName; }

QString backupNamePattern() { return u"config-\\d{4}-\\d{2}-\\d{2}T\\d{2}-\\d{2}-\\d{2}\\.\\d{3}Z\\.json"_s; }

QString nextBackupPath(const QString &folder, const QDateTime &now)
{
    QDateTime time = now.toUTC();
    const QStringList existing = backupsOldestFirst(folder);
    if (!existing.isEmpty()) {
        const QDateTime newest = timeOf(existing.last());
        if (newest.isValid() && newest >= time)
            time = newest.addMSecs(1);
    }
    // Anything else of that name (not a backup, so not seen above) is not overwritten either.
    while (QFileInfo::exists(folder + u'/' + backupName(time)))
        time = time.addMSecs(1);
    return folder + u'/' + backupName(time);
}

QString writeBackup(const QString &folder, const QByteArray &bytes, const QDateTime &now)
{
    const QString backup = nextBackupPath(folder, now);
    try {
        replaceFileAtomically(backup, bytes);
    } catch (const Failure &failure) {
        throw Failure{u"Cannot back up the current configuration: "_s + failure.message};
    }
    return backup;
}

void pruneBackups(const QString &folder, const QDateTime &now, int keep, const QString &spared)
{
    const QStringList backups = backupsOldestFirst(folder);
    QSet<QString> kept = newestOfEachRecentDay(backups, now);
    if (!backups.isEmpty())
        kept.insert(backups.first());
    for (qsizetype i = std::max<qsizetype>(backups.size() - keep, 0); i < backups.size(); ++i)
        kept.insert(backups.at(i));
    if (!spared.isEmpty())
        kept.insert(spared);
    for (const QString &name : backups)
        if (!kept.contains(name))
            QFile::remove(folder + u'/' + name);
}
