#include "daemon/Backups.h"

#include "daemon/AtomicFile.h"
#include "daemon/Failure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {
const QString backupFolderName = u"backups"_s;

QString backupName(const QDateTime &time)
{
    return u"config-"_s + time.toUTC().toString(u"yyyy-MM-dd'T'HH-mm-ss.zzz'Z'"_s) + u".json"_s;
}
} // namespace

QString backUp(const QString &path, const QDateTime &now)
{
    QFile current(path);
    if (!current.exists())
        return {};
    if (!current.open(QIODevice::ReadOnly))
        throw Failure{u"Cannot read the current configuration %1 to back it up: %2."_s.arg(
            QDir::toNativeSeparators(path), current.errorString())};
    const QByteArray bytes = current.readAll();
    if (current.error() != QFileDevice::NoError)
        throw Failure{u"Cannot read the current configuration %1 to back it up: %2."_s.arg(
            QDir::toNativeSeparators(path), current.errorString())};

    const QString folder = QFileInfo(path).absolutePath() + u'/' + backupFolderName;
    if (!QDir().mkpath(folder))
        throw Failure{u"Cannot back up the current configuration: cannot create the folder %1."_s.arg(
            QDir::toNativeSeparators(folder))};
    // Two saves within one millisecond must not share a name.
    QDateTime time = now;
    QString backup = folder + u'/' + backupName(time);
    while (QFileInfo::exists(backup)) {
        time = time.addMSecs(1);
        backup = folder + u'/' + backupName(time);
    }
    try {
        writeFileAtomically(backup, bytes);
    } catch (const Failure &failure) {
        throw Failure{u"Cannot back up the current configuration: "_s + failure.message};
    }
    pruneBackups(folder);
    return backup;
}

void pruneBackups(const QString &folder, int keep)
{
    static const QRegularExpression pattern(
        u"^config-\\d{4}-\\d{2}-\\d{2}T\\d{2}-\\d{2}-\\d{2}\\.\\d{3}Z\\.json$"_s);
    QStringList backups;
    for (const QString &name : QDir(folder).entryList(QDir::Files, QDir::Name))
        if (pattern.match(name).hasMatch())
            backups << name;
    // Fixed-width UTC names: the alphabetical order is the order of age.
    while (backups.size() > keep)
        QFile::remove(folder + u'/' + backups.takeFirst());
}
