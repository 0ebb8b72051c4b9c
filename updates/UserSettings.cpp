#include "updates/UserSettings.h"

#include "updates/Eligibility.h"

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSettings>

namespace {
const QString automaticChecksKey = QStringLiteral("SUEnableAutomaticChecks");
const QString intervalKey = QStringLiteral("SUScheduledCheckInterval");
const QString lastCheckKey = QStringLiteral("SULastCheckTime");
const QString skippedKey = QStringLiteral("SUSkippedVersion");
const QString launchedKey = QStringLiteral("SUHasLaunchedBefore");
const QString groupKey = QStringLiteral("SUUpdateGroupIdentifier");

// SUHasLaunchedBefore as this run found it, once read.
std::optional<bool> launchedBeforeRun;

// QSettings reads the whole file, and its open waits for a writer on a pipe: a store that is
// not a small regular file is left alone, and the update choices fall back to their defaults.
bool storeIsUsable()
{
    const QFileInfo file(UpdateUserSettings::filePath());
    if (!file.exists())
        return true;
    if (file.isFile() && file.size() <= UpdateUserSettings::largestFile)
        return true;
    static bool said = false;
    if (!said)
        qWarning("%s is not a settings file of at most %lld bytes; update choices are not read from it or kept in it.",
                 qUtf8Printable(file.filePath()), UpdateUserSettings::largestFile);
    said = true;
    return false;
}

QVariant read(const QString &key)
{
    if (!storeIsUsable())
        return {};
    return QSettings(UpdateUserSettings::filePath(), QSettings::IniFormat).value(key);
}

void write(const QString &key, const QVariant &value)
{
    if (!storeIsUsable())
        return;
    QSettings settings(UpdateUserSettings::filePath(), QSettings::IniFormat);
    if (value.isValid())
        settings.setValue(key, value);
    else
        settings.remove(key);
    settings.sync();
}
} // namespace

namespace UpdateUserSettings {
QString filePath()
{
    return QDir::homePath() + QStringLiteral("/.config/org.kestrum.Veldspar.configure.conf");
}

std::optional<bool> automaticChecks()
{
    const QVariant value = read(automaticChecksKey);
    if (!value.isValid())
        return std::nullopt;
    return value.toBool();
}

void setAutomaticChecks(bool on)
{
    write(automaticChecksKey, on);
}

std::optional<qint64> checkInterval()
{
    bool ok = false;
    const qint64 seconds = read(intervalKey).toLongLong(&ok);
    if (!ok)
        return std::nullopt;
    return seconds;
}

void setCheckInterval(qint64 seconds)
{
    write(intervalKey, seconds);
}

QDateTime lastCheckTime()
{
    return QDateTime::fromString(read(lastCheckKey).toString(), Qt::ISODateWithMs);
}

void setLastCheckTime(const QDateTime &time)
{
    write(lastCheckKey, time.toUTC().toString(Qt::ISODateWithMs));
}

QString skippedVersion()
{
    return read(skippedKey).toString();
}

void setSkippedVersion(const QString &version)
{
    write(skippedKey, version.isEmpty() ? QVariant() : QVariant(version));
}

bool hasLaunchedBefore()
{
    return read(launchedKey).toBool();
}

void setHasLaunchedBefore()
{
    write(launchedKey, true);
}

bool launchedBeforeThisRun()
{
    if (!launchedBeforeRun) {
        launchedBeforeRun = hasLaunchedBefore();
        if (!*launchedBeforeRun)
            setHasLaunchedBefore();
    }
    return *launchedBeforeRun;
}

void startNewRunForTesting()
{
    launchedBeforeRun.reset();
}

int rolloutGroup()
{
    bool ok = false;
    const int stored = read(groupKey).toInt(&ok);
    if (ok && stored >= 0)
        return stored % phasedRolloutGroups;
    const int drawn = int(QRandomGenerator::system()->bounded(phasedRolloutGroups));
    write(groupKey, drawn);
    return drawn;
}
} // namespace UpdateUserSettings
