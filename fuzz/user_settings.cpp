// The user's update settings file (INI), which the user or another program may have written
// anything into. Every setting reads as something, the rollout group is one of the groups and
// stays the same, and a setting written reads back as written while the others keep what they
// read before.

#include "FuzzSupport.h"

#include "updates/Eligibility.h"
#include "updates/UserSettings.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <fuzzer/FuzzedDataProvider.h>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

namespace {
struct Everything
{
    std::optional<bool> automaticChecks;
    std::optional<qint64> checkInterval;
    QDateTime lastCheckTime;
    QString skippedVersion;
    bool hasLaunchedBefore = false;
};

Everything readEverything()
{
    return {UpdateUserSettings::automaticChecks(), UpdateUserSettings::checkInterval(),
            UpdateUserSettings::lastCheckTime(), UpdateUserSettings::skippedVersion(),
            UpdateUserSettings::hasLaunchedBefore()};
}

// Settings are read anew when the file's time or size changed; each input gets a time of its
// own, so that two inputs of one size written within a millisecond are not taken for one.
void writeSettingsFile(const QByteArray &bytes)
{
    static qint64 stamp = 1;
    QFile file(UpdateUserSettings::filePath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        propertyBroken("the harness can write the settings file", file.errorString());
    file.close();
    const struct timespec times[2] = {{stamp, 0}, {stamp, 0}};
    ++stamp;
    if (::utimensat(AT_FDCWD, QFile::encodeName(UpdateUserSettings::filePath()).constData(), times, 0) != 0)
        propertyBroken("the harness can date the settings file");
}

QString describe(const Everything &e)
{
    return QStringLiteral("automatic %1, interval %2, last check %3, skipped \"%4\", launched %5")
        .arg(e.automaticChecks ? QString::number(*e.automaticChecks) : QStringLiteral("-"),
             e.checkInterval ? QString::number(*e.checkInterval) : QStringLiteral("-"),
             e.lastCheckTime.toString(Qt::ISODateWithMs), e.skippedVersion, QString::number(e.hasLaunchedBefore));
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The settings live in the home folder: a scratch one, for this run only, in memory where
    // there is a place for it, since every write of the settings is synced to the disk.
    const QString memory = QStringLiteral("/dev/shm");
    static const std::unique_ptr<QTemporaryDir> home =
        QFileInfo(memory).isDir() ? std::make_unique<QTemporaryDir>(memory + QStringLiteral("/veldspar-fuzz-XXXXXX"))
                                  : std::make_unique<QTemporaryDir>();
    if (!home->isValid() || !QDir(home->path()).mkpath(QStringLiteral(".config")))
        propertyBroken("the harness has a home folder");
    qputenv("HOME", QFile::encodeName(home->path()));
    return 0;
}

// fuzz/run keeps inputs at 8 KiB: even with every byte escaped, the rewritten store stays under
// UpdateUserSettings::largestFile, so every write lands and can be read back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const int change = input.ConsumeIntegralInRange<int>(0, 5);
    const qint64 number = input.ConsumeIntegral<qint64>();
    const std::string text = input.ConsumeRandomLengthString(80);
    const std::string file = input.ConsumeRemainingBytesAsString();
    writeSettingsFile(QByteArray(file.data(), qsizetype(file.size())));

    const Everything before = readEverything();
    const int group = UpdateUserSettings::rolloutGroup();
    expectThat(group >= 0 && group < phasedRolloutGroups, "the rollout group is one of the groups",
               [&] { return QString(QString::number(group)); });
    expectThat(UpdateUserSettings::rolloutGroup() == group, "the rollout group stays the same",
               [&] { return QString(QString::number(group)); });
    const Everything drawn = readEverything();
    expectThat(describe(drawn) == describe(before), "drawing the rollout group changes no other setting",
               [&] { return QString(describe(before) + QStringLiteral("\nbecame\n") + describe(drawn)); });

    Everything expected = before;
    switch (change) {
    case 0:
        UpdateUserSettings::setAutomaticChecks(number & 1);
        expected.automaticChecks = bool(number & 1);
        break;
    case 1:
        UpdateUserSettings::setCheckInterval(number);
        expected.checkInterval = number;
        break;
    case 2: {
        // Any time from 1970 to 9999, to the millisecond.
        const QDateTime time = QDateTime::fromMSecsSinceEpoch(qint64(quint64(number) % 253402300799000ULL), Qt::UTC);
        UpdateUserSettings::setLastCheckTime(time);
        expected.lastCheckTime = time;
        break;
    }
    case 3: {
        const QString version = QString::fromUtf8(text.data(), qsizetype(text.size()));
        UpdateUserSettings::setSkippedVersion(version);
        expected.skippedVersion = version;
        break;
    }
    case 4:
        UpdateUserSettings::setHasLaunchedBefore();
        expected.hasLaunchedBefore = true;
        break;
    default:
        return 0;
    }
    const Everything after = readEverything();
    expectThat(describe(after) == describe(expected), "a setting written reads back, and the others keep their values",
               [&] { return QString(describe(expected) + QStringLiteral("\nread back as\n") + describe(after)); });
    expectThat(UpdateUserSettings::rolloutGroup() == group, "writing a setting keeps the rollout group",
               [&] { return QString(QString::number(group)); });
    return 0;
}
