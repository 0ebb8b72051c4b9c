#include "updates/UpdateSchedule.h"

#include "updates/UserSettings.h"

namespace {
// Longer waits are taken in steps of at most this.
constexpr qint64 longestTimerStep = qint64(24) * 24 * 3600 * 1000;
} // namespace

bool automaticChecksInForce(const BundleInfo &bundle)
{
    return UpdateUserSettings::automaticChecks().value_or(bundle.enableAutomaticChecks.value_or(false));
}

qint64 checkIntervalInForce(const BundleInfo &bundle)
{
    if (const auto chosen = UpdateUserSettings::checkInterval())
        return normalizedCheckInterval(chosen);
    return normalizedCheckInterval(bundle.scheduledCheckInterval);
}

QDateTime nextScheduledCheck(const BundleInfo &bundle, const QDateTime &now)
{
    const qint64 interval = checkIntervalInForce(bundle);
    if (!automaticChecksInForce(bundle) || interval <= 0)
        return {};
    const QDateTime last = UpdateUserSettings::lastCheckTime();
    if (!last.isValid())
        return now;
    if (last > now) // the clock went back: count from now
        return now.addSecs(interval);
    return qMax(last.addSecs(interval), now);
}

bool permissionQuestionDue(const BundleInfo &bundle, bool launchedBefore)
{
    const bool decided = UpdateUserSettings::automaticChecks() || bundle.enableAutomaticChecks;
    return launchedBefore && !decided;
}

QDateTime engineNeededAt(const BundleInfo &bundle, bool launchedBefore, const QDateTime &now)
{
    if (permissionQuestionDue(bundle, launchedBefore))
        return now;
    return nextScheduledCheck(bundle, now);
}

int timerStepUntil(const QDateTime &due, const QDateTime &now)
{
    return int(qBound(qint64(0), now.msecsTo(due), longestTimerStep));
}
