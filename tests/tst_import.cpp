// The service executable's import mode and the service's reading of config.json, where they
// can lose or corrupt a configuration: failing disks, clocks set back, FIFOs and devices,
// concurrent saves, links, kills half-way, and text that the app cannot read; which backups
// are kept and who may read them; and that the app and the service accept the same sizes.
#include "RunningService.h"
#include "TestSupport.h"

#include "config/ConfigDocument.h"
#include "config/ConfigFile.h"
#include "daemon/Backups.h"
#include "daemon/Configuration.h"
#include "platform/ConfigurationLimit.h"
#include "platform/Error.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
const QString serviceProgram = QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE);

struct ImportRun
{
    bool finished = false;
    int status = -1;
    QString output; // standard output and error together, as the app reads them
};

ImportRun runImport(const QString &config, const QString &file, const std::function<void()> &inChild = {})
{
    QProcess process;
    process.setProgram(serviceProgram);
    process.setArguments({u"--config"_s, config, u"--import"_s, file});
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (inChild)
        process.setChildProcessModifier(inChild);
    process.start();
    ImportRun run;
    // A bound for "does not hang", far beyond what any import takes.
    run.finished = process.waitForFinished(30000);
    if (!run.finished) {
        process.kill();
        process.waitForFinished();
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.output = QString::fromUtf8(process.readAll()).trimmed();
    return run;
}

// A configuration of count radios whose texts all carry tag, so that no two tags give the same bytes.
QByteArray documentOf(const QString &tag, int count = 1)
{
    QList<QJsonObject> radios;
    // The tag goes in the serial and a key of its own: a radio's name has at most 15 characters.
    for (int i = 0; i < count; ++i) {
        QJsonObject entry = radio(u"10.%1.%2.%3"_s.arg(i / 65536 % 256).arg(i / 256 % 256).arg(i % 256),
                                  u"S-%1-%2"_s.arg(tag).arg(i), u"Radio %1"_s.arg(i));
        entry.insert(u"note"_s, u"Radio %1 of %2"_s.arg(i).arg(tag));
        radios << entry;
    }
    return configWith(radios);
}

QString backupFolderOf(const QString &config) { return QFileInfo(config).path() + u"/backups"_s; }

// Every backup by name, with its bytes.
QMap<QString, QByteArray> backupsOf(const QString &config)
{
    QMap<QString, QByteArray> backups;
    const QDir folder(backupFolderOf(config));
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden, QDir::Name))
        backups.insert(name, readTestFile(folder.filePath(name)));
    return backups;
}

QStringList hiddenFilesIn(const QString &folder)
{
    QStringList hidden;
    for (const QString &name : QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name))
        if (name.startsWith(u'.'))
            hidden << name;
    return hidden;
}

QString backupNameAt(const QString &stamp) { return u"config-"_s + stamp + u"Z.json"_s; }

// Twenty backups made within one second (stamp: "yyyy-MM-ddTHH-mm-ss"), each a document tagged
// "<tag>-<n>".
void writeBackups(const QString &config, const QString &stamp, const QString &tag)
{
    for (int i = 0; i < 20; ++i)
        writeTestFile(backupFolderOf(config) + u'/' + backupNameAt(stamp + u".%1"_s.arg(i, 3, 10, QChar(u'0'))),
                      documentOf(u"%1-%2"_s.arg(tag).arg(i)));
}

// The file path after "the previous configuration is in" in the import's one line.
QString reportedBackup(const QString &output)
{
    const QRegularExpressionMatch match = QRegularExpression(u"the previous configuration is in (.+)\\.$"_s).match(output);
    return match.hasMatch() ? match.captured(1) : QString();
}

int modeOf(const QString &path)
{
    struct stat info{};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

void makeFifo(const QString &path) { QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0); }

void makeSparseFile(const QString &path, qint64 size)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QVERIFY(file.resize(size));
}

void renameOver(const QString &from, const QString &to)
{
    QCOMPARE(::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()), 0);
}

// In the child: writes beyond bytes fail with EFBIG, as on a full disk, instead of killing it.
std::function<void()> filesLimitedTo(rlim_t bytes)
{
    return [bytes] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{bytes, bytes};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    };
}

// In the child: a reader that takes in a device whole dies of it rather than eat the machine.
// (The sanitizer's shadow memory needs an unbounded address space.)
void memoryLimited()
{
#if !defined(__SANITIZE_ADDRESS__)
    const rlimit limit{rlim_t(2) << 30, rlim_t(2) << 30};
    ::setrlimit(RLIMIT_AS, &limit);
#endif
}

} // namespace

class ImportTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString path(const QString &name) const { return m_dir.filePath(name); }

private Q_SLOTS:
    // ---- writing: the new file first, then the backup, then the rename, then pruning ----

    void aFailingDiskLeavesTheConfigurationAndItsBackupsAsTheyWere()
    {
        const QString config = path(u"full-disk/config.json"_s);
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        writeBackups(config, u"2020-01-01T00-00-00"_s, u"history"_s);
        const QMap<QString, QByteArray> history = backupsOf(config);
        const QByteArray next = documentOf(u"next"_s, 50);
        QVERIFY(previous.size() < next.size() / 2);
        writeTestFile(path(u"full-disk.json"_s), next);

        // Twenty failed saves in a row: each must change nothing at all.
        for (int attempt = 0; attempt < 20; ++attempt) {
            const ImportRun run = runImport(config, path(u"full-disk.json"_s), filesLimitedTo(rlim_t(next.size() / 2)));
            QVERIFY(run.finished);
            QCOMPARE(run.status, 1);
            QCOMPARE(run.output, u"Cannot write %1: File too large."_s.arg(config));
        }
        QCOMPARE(readTestFile(config), previous);
        QCOMPARE(backupsOf(config), history);
        QCOMPARE(hiddenFilesIn(QFileInfo(config).path()), QStringList());

        // The same save with room enough succeeds and backs up the previous file; the twenty
        // earlier ones stay (the newest twenty with it, and the oldest of all).
        const ImportRun saved = runImport(config, path(u"full-disk.json"_s));
        QCOMPARE(saved.status, 0);
        QCOMPARE(readTestFile(config), next);
        QCOMPARE(readTestFile(reportedBackup(saved.output)), previous);
        QMap<QString, QByteArray> expected = history;
        expected.insert(QFileInfo(reportedBackup(saved.output)).fileName(), previous);
        QCOMPARE(backupsOf(config), expected);
    }

    void theNewBackupIsKeptWhenTheClockWasOnceAhead()
    {
        const QString config = path(u"clock/config.json"_s);
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        // Made while the clock said 2098 and 2099.
        writeBackups(config, u"2098-01-01T00-00-00"_s, u"far"_s);
        writeBackups(config, u"2099-01-01T00-00-00"_s, u"future"_s);
        writeTestFile(path(u"clock.json"_s), documentOf(u"next"_s));

        const ImportRun run = runImport(config, path(u"clock.json"_s));
        QCOMPARE(run.status, 0);
        const QString backup = reportedBackup(run.output);
        QVERIFY2(!backup.isEmpty(), qPrintable(run.output));
        QCOMPARE(readTestFile(backup), previous);
        const QStringList names = backupsOf(config).keys();
        QCOMPARE(names.size(), 21);
        // The newest by name, so the next prune cannot take it either; older ones went instead,
        // all but the oldest of all.
        QCOMPARE(names.last(), QFileInfo(backup).fileName());
        QCOMPARE(names.first(), backupNameAt(u"2098-01-01T00-00-00.000"_s));
        QVERIFY(!names.contains(backupNameAt(u"2099-01-01T00-00-00.000"_s)));
    }

    void theOldestBackupOutlivesAnyNumberOfSaves()
    {
        // A configuration the app could not read, then saved over by one with a single radio.
        const QString config = path(u"overwritten/config.json"_s);
        const QByteArray unreadable = documentOf(u"the user's radios"_s, 12);
        writeTestFile(config, unreadable);
        QString first;
        for (int save = 0; save < 3 * keptBackups; ++save) {
            writeTestFile(path(u"overwritten.json"_s), documentOf(u"save-%1"_s.arg(save)));
            const ImportRun run = runImport(config, path(u"overwritten.json"_s));
            QCOMPARE(run.status, 0);
            if (first.isEmpty())
                first = QFileInfo(reportedBackup(run.output)).fileName();
        }
        const QMap<QString, QByteArray> backups = backupsOf(config);
        QCOMPARE(backups.value(first), unreadable);
        // Made within one day (unless midnight came in between): the newest twenty and that oldest one.
        if (backups.firstKey().left(17) == backups.lastKey().left(17))
            QCOMPARE(backups.size(), keptBackups + 1);
    }

    void pruningKeepsTheNewestTheOldestAndTheNewestOfEachRecentDay()
    {
        const QString config = path(u"rules/config.json"_s);
        const QString folder = backupFolderOf(config);
        const QDateTime now(QDate(2026, 3, 31), QTime(12, 0), Qt::UTC);
        const auto at = [](const QDateTime &time) { return backupNameAt(time.toString(u"yyyy-MM-ddTHH-mm-ss.zzz"_s)); };
        QStringList expected;
        // Long ago: only the oldest of all stays.
        for (int i = 0; i < 5; ++i)
            writeTestFile(folder + u'/' + at(now.addDays(-400 + i)), documentOf(u"old-%1"_s.arg(i)));
        expected << at(now.addDays(-400));
        // Three a day over the last 40 days: from each of the last 30 days (today included), the
        // last of the day stays.
        for (int day = 40; day >= 1; --day)
            for (int hour : {1, 5, 9}) {
                const QDateTime time(now.date().addDays(-day), QTime(hour, 0), Qt::UTC);
                writeTestFile(folder + u'/' + at(time), documentOf(u"day-%1-%2"_s.arg(day).arg(hour)));
                if (hour == 9 && day <= 29)
                    expected << at(time);
            }
        // Today, thirty in the last hour: the newest twenty of them stay.
        for (int i = 0; i < 30; ++i) {
            const QDateTime time = now.addSecs(-3600 + 60 * i);
            writeTestFile(folder + u'/' + at(time), documentOf(u"today-%1"_s.arg(i)));
            if (i >= 10)
                expected << at(time);
        }
        // Not backups, so never touched.
        writeTestFile(folder + u"/notes.txt"_s, "mine");
        writeTestFile(folder + u"/config-someday.json"_s, "mine too");
        expected << u"config-someday.json"_s << u"notes.txt"_s;

        // The one just written, dated by a clock set far back: kept whatever it says.
        const QString spared = at(QDateTime(QDate(2001, 6, 1), QTime(0, 0), Qt::UTC));
        writeTestFile(folder + u'/' + spared, documentOf(u"just written"_s));
        // (It is now the oldest, so the one from 400 days ago is only as old as the others.)
        expected.removeAll(at(now.addDays(-400)));
        expected << spared;

        pruneBackups(folder, now, keptBackups, spared);
        expected.sort();
        QCOMPARE(backupsOf(config).keys(), expected);

        // Pruning again changes nothing.
        pruneBackups(folder, now, keptBackups, spared);
        QCOMPARE(backupsOf(config).keys(), expected);
    }

    void theBackupJustWrittenIsKeptWhateverTheClockSays()
    {
        const QString config = path(u"spared/config.json"_s);
        const QString folder = backupFolderOf(config);
        const QDateTime now(QDate(2026, 3, 31), QTime(12, 0), Qt::UTC);
        writeBackups(config, u"2026-03-31T11-00-00"_s, u"recent"_s);
        writeTestFile(folder + u'/' + backupNameAt(u"1999-01-01T00-00-00.000"_s), documentOf(u"oldest"_s));
        // Neither the oldest, nor among the newest twenty, nor of a recent day.
        const QString spared = backupNameAt(u"2000-01-01T00-00-00.000"_s);
        writeTestFile(folder + u'/' + spared, documentOf(u"just written"_s));

        pruneBackups(folder, now, keptBackups, spared);
        const QStringList names = backupsOf(config).keys();
        QVERIFY(names.contains(spared));
        QVERIFY(names.contains(backupNameAt(u"1999-01-01T00-00-00.000"_s)));
        QCOMPARE(names.size(), keptBackups + 2);
    }

    // ---- who may read what the import writes ----

    void theConfigurationAndItsBackupsAreTheUsersAlone()
    {
        const QString config = path(u"private/config.json"_s);
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        QCOMPARE(::chmod(QFile::encodeName(config).constData(), 0644), 0);
        writeTestFile(path(u"private.json"_s), documentOf(u"next"_s));

        const ImportRun run = runImport(config, path(u"private.json"_s), [] { ::umask(022); });
        QCOMPARE(run.status, 0);
        const QString backup = reportedBackup(run.output);
        QCOMPARE(readTestFile(backup), previous);
        QCOMPARE(modeOf(config), 0600);
        QCOMPARE(modeOf(backup), 0600);

        // A configuration made where there was none is private too.
        const QString fresh = path(u"private-new/config.json"_s);
        const ImportRun made = runImport(fresh, path(u"private.json"_s), [] { ::umask(022); });
        QCOMPARE(made.status, 0);
        QCOMPARE(modeOf(fresh), 0600);
    }

    // ---- one size limit for the app and the service ----

    void theAppAndTheServiceAcceptTheSameSizes_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("5 MB") << qint64(5 * 1000 * 1000) << true;
        QTest::newRow("at the limit") << largestConfigurationFile << true;
        QTest::newRow("one byte more") << largestConfigurationFile + 1 << false;
    }

    void theAppAndTheServiceAcceptTheSameSizes()
    {
        QFETCH(qint64, size);
        QFETCH(bool, accepted);
        const QByteArray start = "{\"radios\": [], \"padding\": \"";
        const QByteArray end = "\"}";
        const QByteArray document = start + QByteArray(size - start.size() - end.size(), 'x') + end;
        QCOMPARE(document.size(), size);
        const QString file = path(u"sized.json"_s);
        writeTestFile(file, document);

        bool appAccepts = true;
        try {
            readConfigurationFile(file);
        } catch (const Error &) {
            appAccepts = false;
        }
        QCOMPARE(appAccepts, accepted);
        const QString config = path(u"sized/config.json"_s);
        const ImportRun run = runImport(config, file);
        QCOMPARE(run.status == 0, accepted);
        QCOMPARE(QFileInfo::exists(config), accepted);
        QFile::remove(config);
    }

    // ---- reading: only regular files, and only so much ----

    void onlyARegularFileIsImported_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("FIFO") << u"fifo"_s;
        QTest::newRow("device reporting no size") << u"device"_s;
    }

    void onlyARegularFileIsImported()
    {
        QFETCH(QString, kind);
        const QString config = path(u"irregular-%1/config.json"_s.arg(kind));
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        QString file = u"/dev/zero"_s;
        if (kind == u"fifo"_s) {
            file = path(u"irregular.fifo"_s);
            makeFifo(file);
        }
        const ImportRun run = runImport(config, file, memoryLimited);
        QVERIFY2(run.finished, "the import waited for ever");
        QCOMPARE(run.status, 1);
        QCOMPARE(run.output, u"%1 is not a regular file."_s.arg(file));
        QCOMPARE(readTestFile(config), previous);
        QVERIFY(backupsOf(config).isEmpty());
    }

    void aHugeFileIsRefusedUnread()
    {
        const QString config = path(u"huge/config.json"_s);
        writeTestFile(config, documentOf(u"previous"_s));
        makeSparseFile(path(u"huge.json"_s), qint64(3) << 30);
        const ImportRun run = runImport(config, path(u"huge.json"_s), memoryLimited);
        QCOMPARE(run.status, 1);
        QCOMPARE(run.output, u"%1 is too large to be a configuration."_s.arg(path(u"huge.json"_s)));
        QCOMPARE(readTestFile(config), documentOf(u"previous"_s));
    }

    void theServiceKeepsItsConfigurationWhenAnUnreadableFileTakesItsPlace_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("reason");
        QTest::newRow("FIFO") << u"fifo"_s << u"is not a regular file."_s;
        QTest::newRow("huge sparse file") << u"huge"_s << u"is too large to be a configuration."_s;
    }

    void theServiceKeepsItsConfigurationWhenAnUnreadableFileTakesItsPlace()
    {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        const QString config = path(u"service-%1/config.json"_s.arg(kind));
        writeTestFile(config, documentOf(u"good"_s));
        RunningService service(config, {u"127.0.0.1:9"_s}); // beacons kept off the real networks
        QTRY_VERIFY_WITH_TIMEOUT(service.log().contains(u"Configuration loaded:"_s), 5000);

        const QString replacement = config + u".new"_s;
        if (kind == u"fifo"_s)
            makeFifo(replacement);
        else
            makeSparseFile(replacement, qint64(64) << 20);
        renameOver(replacement, config);
        QTRY_VERIFY_WITH_TIMEOUT(
            service.log().contains(u"Keeping the previous configuration: %1 %2"_s.arg(config, reason)), 5000);
        QCOMPARE(service.log().count(u"Configuration loaded"_s), 1);
        QVERIFY2(service.stops(), qPrintable(service.log()));
    }

    // ---- concurrent saves ----

    void concurrentImportsLoseNoDocument()
    {
        const QString config = path(u"concurrent/config.json"_s);
        const QByteArray first = documentOf(u"first"_s, 200);
        writeTestFile(config, first);
        QList<QByteArray> documents;
        std::vector<std::unique_ptr<QProcess>> imports;
        for (int i = 0; i < 10; ++i) {
            documents << documentOf(u"concurrent-%1"_s.arg(i), 200);
            const QString file = path(u"concurrent-%1.json"_s.arg(i));
            writeTestFile(file, documents.last());
            imports.push_back(std::make_unique<QProcess>());
            imports.back()->setProcessChannelMode(QProcess::MergedChannels);
            imports.back()->start(serviceProgram, {u"--config"_s, config, u"--import"_s, file});
        }
        int succeeded = 0;
        for (qsizetype i = 0; i < documents.size(); ++i) {
            QVERIFY(imports[size_t(i)]->waitForFinished(60000));
            QVERIFY2(imports[size_t(i)]->exitCode() == 0, imports[size_t(i)]->readAll().constData());
            ++succeeded;
        }
        QList<QByteArray> stored = backupsOf(config).values();
        stored << readTestFile(config);
        QCOMPARE(succeeded, 10);
        QVERIFY(stored.contains(first));
        for (qsizetype i = 0; i < documents.size(); ++i)
            QVERIFY2(stored.contains(documents.at(i)), qPrintable(u"document %1 is nowhere"_s.arg(i)));
        QCOMPARE(stored.size(), 11);
    }

    void aSaveWaitsForAnotherOnlySoLong()
    {
        const QString folder = path(u"locked"_s);
        const QString config = folder + u"/config.json"_s;
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        // What a killed save left; not ours to clean while another save may be writing it.
        writeTestFile(folder + u"/.config.json.Ab12Cd"_s, "half");
        writeTestFile(path(u"locked.json"_s), documentOf(u"next"_s));

        const int held = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        QVERIFY(held >= 0);
        QCOMPARE(::flock(held, LOCK_EX), 0);
        const ImportRun run = runImport(config, path(u"locked.json"_s));
        ::close(held);
        QVERIFY(run.finished);
        QCOMPARE(run.status, 1);
        QCOMPARE(run.output, u"Another save into %1 has not finished within 10 seconds; nothing was changed."_s.arg(folder));
        QCOMPARE(readTestFile(config), previous);
        QVERIFY(backupsOf(config).isEmpty());
        QCOMPARE(readTestFile(folder + u"/.config.json.Ab12Cd"_s), QByteArray("half"));

        // Once let go, the next save goes through.
        QCOMPARE(runImport(config, path(u"locked.json"_s)).status, 0);
        QCOMPARE(readTestFile(config), documentOf(u"next"_s));
    }

    // ---- links and leftovers ----

    void aLinkedConfigurationIsWrittenThroughToItsTarget()
    {
        const QString config = path(u"linked/config.json"_s);
        const QString target = path(u"elsewhere/real.json"_s);
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(target, previous);
        QVERIFY(QDir().mkpath(path(u"linked"_s)));
        QCOMPARE(::symlink("../elsewhere/real.json", QFile::encodeName(config).constData()), 0);
        writeTestFile(path(u"linked.json"_s), documentOf(u"next"_s));

        const ImportRun run = runImport(config, path(u"linked.json"_s));
        QCOMPARE(run.status, 0);
        QVERIFY(QFileInfo(config).isSymLink());
        QCOMPARE(QFileInfo(config).symLinkTarget(), QFileInfo(target).absoluteFilePath());
        QCOMPARE(readTestFile(target), documentOf(u"next"_s));
        QCOMPARE(backupsOf(config).values(), QList<QByteArray>{previous});
        QCOMPARE(hiddenFilesIn(path(u"elsewhere"_s)), QStringList());
    }

    void aLinkToNothingIsRefused()
    {
        const QString config = path(u"dangling/config.json"_s);
        QVERIFY(QDir().mkpath(path(u"dangling"_s)));
        QCOMPARE(::symlink("gone.json", QFile::encodeName(config).constData()), 0);
        writeTestFile(path(u"dangling.json"_s), documentOf(u"next"_s));

        const ImportRun run = runImport(config, path(u"dangling.json"_s));
        QCOMPARE(run.status, 1);
        QCOMPARE(run.output, u"Cannot write %1: it is a link to %2, which does not exist."_s.arg(
                                 config, path(u"dangling/gone.json"_s)));
        QVERIFY(QFileInfo(config).isSymLink());
        QVERIFY(!QFileInfo::exists(path(u"dangling/gone.json"_s)));
    }

    void leftoversOfAKilledSaveAreCleanedAtTheNextOne()
    {
        const QString folder = path(u"leftovers"_s);
        const QString config = folder + u"/config.json"_s;
        writeTestFile(config, documentOf(u"previous"_s));
        const QStringList ours{u".config.json.Ab12Cd"_s, u"backups/.config-2020-01-01T00-00-00.000Z.json.Zz99Yy"_s};
        const QStringList others{u".config.json.keep-me"_s, u".other.json.Ab12Cd"_s, u"config.json.Ab12Cd"_s,
                                 u"backups/.notes.Ab12Cd"_s};
        for (const QString &name : ours + others)
            writeTestFile(folder + u'/' + name, "left");
        writeTestFile(path(u"leftovers.json"_s), documentOf(u"next"_s));

        QCOMPARE(runImport(config, path(u"leftovers.json"_s)).status, 0);
        for (const QString &name : ours)
            QVERIFY2(!QFileInfo::exists(folder + u'/' + name), qPrintable(name));
        for (const QString &name : others)
            QVERIFY2(readTestFile(folder + u'/' + name) == "left", qPrintable(name));
    }

    // ---- text that the app cannot read ----

    void importRefusesTextTheAppCannotRead_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("message");
        const QString notUtf8 = u"The configuration is not UTF-8 text."_s;
        QTest::newRow("0xFF after a backslash") << QByteArray("Radio \\\xff") << notUtf8;
        QTest::newRow("both bytes of an é after backslashes") << QByteArray("Radio \\\xc3\\\xa9") << notUtf8;
        QTest::newRow("lone high surrogate") << QByteArray("Radio \\ud800")
                                             << u"The configuration has an unpaired surrogate \"\\ud800\" in a text."_s;
        QTest::newRow("lone low surrogate") << QByteArray("\\udc00 Radio")
                                            << u"The configuration has an unpaired surrogate \"\\udc00\" in a text."_s;
        QTest::newRow("reversed pair") << QByteArray("\\udc00\\ud800")
                                       << u"The configuration has an unpaired surrogate \"\\udc00\" in a text."_s;
    }

    void importRefusesTextTheAppCannotRead()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, message);
        const QString config = path(u"text/config.json"_s);
        const QByteArray previous = documentOf(u"previous"_s);
        writeTestFile(config, previous);
        writeTestFile(path(u"text.json"_s),
                      R"({"radios": [{"ipAddress": "10.0.0.1", "serialNumber": "T-1", "name": ")" + text + R"("}]})");
        const ImportRun run = runImport(config, path(u"text.json"_s));
        QCOMPARE(run.status, 1);
        QCOMPARE(run.output, message);
        QCOMPARE(readTestFile(config), previous);
    }

    void theServiceAndTheAppAgreeOnText_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("readable");
        QTest::newRow("plain") << QByteArray("Radio") << true;
        QTest::newRow("UTF-8") << QByteArray("R\xc3\xa4" "dio \xe2\x80\x94 \xf0\x9f\x93\xbb") << true;
        QTest::newRow("escaped pair") << QByteArray("\\ud83d\\udcfb") << true;
        QTest::newRow("escaped ASCII") << QByteArray("\\u0041\\n\\\"") << true;
        QTest::newRow("0xFF after a backslash") << QByteArray("\\\xff") << false;
        QTest::newRow("0xC3 after a backslash") << QByteArray("\\\xc3\\\xa9") << false;
        QTest::newRow("raw 0xFF") << QByteArray("\xff") << false;
        QTest::newRow("overlong slash") << QByteArray("\xc0\xaf") << false;
        QTest::newRow("encoded surrogate") << QByteArray("\xed\xa0\x80") << false;
        QTest::newRow("lone high surrogate") << QByteArray("\\ud800") << false;
        QTest::newRow("lone low surrogate") << QByteArray("\\udfff") << false;
        QTest::newRow("high surrogate at the end") << QByteArray("ok\\udbff") << false;
    }

    // The service's reader, the app's start-up reading and the app's import of a file say the
    // same about each document: it is read, or it is refused.
    void theServiceAndTheAppAgreeOnText()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, readable);
        for (const QByteArray &where : {QByteArray("name"), QByteArray("key")}) {
            // The text as a name, or as a key of its own.
            const QByteArray entry = where == "name" ? "\"name\": \"" + text + "\"" : "\"" + text + "\": true";
            const QByteArray bytes = R"({"radios": [{"ipAddress": "10.0.0.1", "serialNumber": "T-1", )" + entry + "}]}";

            const bool service = std::holds_alternative<Configuration>(readConfiguration(bytes));
            TestWorld world;
            world.writeConfig(bytes);
            const RunningApp app(world);
            const bool shown = app.rowCount() == 1;
            bool imported = true;
            try {
                readConfigurationFile(world.configPath());
            } catch (const Error &) {
                imported = false;
            }
            const QByteArray row = where + ": service " + QByteArray::number(service) + ", app shows "
                                   + QByteArray::number(shown) + ", app imports " + QByteArray::number(imported);
            QVERIFY2(service == readable && shown == readable && imported == readable, row.constData());
        }
    }

    // ---- kill -9 at any moment ----

    void aKilledImportLeavesTheOldOrTheNewFileWhole()
    {
        const QString config = path(u"killed/config.json"_s);
        const QString file = path(u"killed.json"_s);
        // A few hundred KiB, so that many kills land inside the writing.
        const auto version = [](int n) { return documentOf(u"v%1"_s.arg(n), 1200); };
        QByteArray current = version(0);
        writeTestFile(config, current);
        QSet<QByteArray> imported{current};

        // How long one import takes here, to spread the kills over its whole run.
        writeTestFile(file, version(1));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(runImport(config, file).status, 0);
        const qint64 spanUs = std::max<qint64>(clock.nsecsElapsed() / 1000, 1000);
        current = version(1);
        imported << current;

        const quint32 seed = QRandomGenerator::global()->generate();
        qInfo("seed %u; one import takes %lld us", seed, spanUs);
        QRandomGenerator random(seed);
        QElapsedTimer total;
        total.start();
        int runs = 0;
        int changed = 0;
        for (int n = 2; runs < 150 && (runs < 100 || total.elapsed() < 20000); ++n, ++runs) {
            const QByteArray next = version(n);
            writeTestFile(file, next);
            imported << next;
            QProcess process;
            process.start(serviceProgram, {u"--config"_s, config, u"--import"_s, file});
            QVERIFY(process.waitForStarted());
            QThread::usleep(random.bounded(quint32(spanUs * 12 / 10)));
            process.kill();
            QVERIFY(process.waitForFinished(10000));

            const QByteArray now = readTestFile(config);
            QVERIFY2(now == current || now == next, qPrintable(u"run %1 (seed %2): config.json is neither"_s.arg(runs).arg(seed)));
            changed += now == next;
            current = now;
            const QMap<QString, QByteArray> backups = backupsOf(config);
            for (auto it = backups.begin(); it != backups.end(); ++it)
                QVERIFY2(it.key().startsWith(u'.') || imported.contains(it.value()),
                         qPrintable(u"run %1 (seed %2): backup %3 is damaged"_s.arg(runs).arg(seed).arg(it.key())));
        }
        qInfo("%d kills, %d of them after the file was replaced", runs, changed);
        QVERIFY(runs >= 100);

        // The next whole save cleans up what the kills left.
        writeTestFile(file, version(0));
        QCOMPARE(runImport(config, file).status, 0);
        QCOMPARE(hiddenFilesIn(QFileInfo(config).path()), QStringList());
        QCOMPARE(hiddenFilesIn(backupFolderOf(config)), QStringList());
    }
};

QTEST_MAIN(ImportTest)
#include "tst_import.moc"
