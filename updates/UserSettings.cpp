#include "updates/UserSettings.h"

#include "updates/Eligibility.h"

#include <QDir>
#include <QRandomGenerator>
#include <QSettings>

namespace {
const QString automaticChecksKey = QStringLiteral("SUEnableAutomaticChecks");
const QString intervalKey = QStringLiteral("SUScheduledCheckInterval");
const QString lastCheckKey = QStringLiteral("SULastCheckTime");
const QString skippedKey = QStringLiteral("SUSkippedVersion");
const QString launchedKey = QStringLiteral("SUHasLaunchedBefore");
const QString groupKey = QStringLiteral("SUUpdateGroupIdentifier");

void write(const QString &key, const QVariant &value)
{
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
    const QVariant value = QSettings(filePath(), QSettings::IniFormat).value(automaticChecksKey);
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
    const qint64 seconds = QSettings(filePath(), QSettings::IniFormat).value(intervalKey).toLongLong(&ok);
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
    return QDateTime::fromString(QSettings(filePath(), QSettings::IniFormat).value(lastCheckKey).toString(), Qt::ISODateWithMs);
}

void setLastCheckTime(const QDateTime &time)
{
    write(lastCheckKey, time.toUTC().toString(Qt::ISODateWithMs));
}

QString skippedVersion()
{
    return QSettings(filePath(), QSettings::IniFormat).value(skippedKey).toString();
}

void setSkippedVersion(const QString &version)
{
    write(skippedKey, version.isEmpty() ? QVariant() : QVariant(version));
}

bool hasLaunchedBefore()
{
    return QSettings(filePath(), QSettings::IniFormat).value(launchedKey).toBool();
}

void setHasLaunchedBefore()
{
    write(launchedKey, true);
}

int rolloutGroup()
{
    bool ok = false;
    const int stored = QSettings(filePath(), QSettings::IniFormat).value(groupKey).toInt(&ok);
    if (ok && stored >= 0)
        return stored % phasedRolloutGroups;
    const int drawn = int(QRandomGenerator::system()->bounded(phasedRolloutGroups));
    write(groupKey, drawn);
    return drawn;
}
} // namespace UpdateUserSettings
