#include "updates/Eligibility.h"

#include "updates/VersionComparator.h"

namespace {
// Why the item cannot be offered in this context; nothing when it can.
std::optional<QString> refusal(const AppcastItem &item, const CheckContext &context)
{
    if (item.version.isEmpty())
        return QStringLiteral("has no version (sparkle:version)");
    if (item.os.isEmpty())
        return QStringLiteral("is not for Linux: it has no sparkle:os, so it is meant for macOS");
    if (item.os != u"linux")
        return QStringLiteral("is not for Linux: its sparkle:os is \u201c%1\u201d").arg(item.os);
    if (!item.channel.isEmpty())
        return QStringLiteral("is on the channel \u201c%1\u201d, which this app does not follow").arg(item.channel);
    if (!item.isInformationalFor(context.currentVersion) && !item.enclosure)
        return QStringLiteral("has no download (no enclosure with a url)");
    if (!item.minimumSystemVersion.isEmpty() && compareVersions(context.systemVersion, item.minimumSystemVersion) < 0)
        return QStringLiteral("needs system version %1 or later; this system is %2")
            .arg(item.minimumSystemVersion, context.systemVersion);
    if (!item.maximumSystemVersion.isEmpty() && compareVersions(context.systemVersion, item.maximumSystemVersion) > 0)
        return QStringLiteral("is only for system versions up to %1; this system is %2")
            .arg(item.maximumSystemVersion, context.systemVersion);
    if (!isNewerVersion(item.version, context.currentVersion))
        return QStringLiteral("is not newer than the current version %1").arg(context.currentVersion);
    if (context.kind == CheckKind::Scheduled && !item.isCriticalFor(context.currentVersion)) {
        if (!context.skippedVersion.isEmpty() && item.version == context.skippedVersion)
            return QStringLiteral("was skipped by the user, and scheduled checks pass over it");
        if (item.phasedRolloutInterval && item.pubDate.isValid()) {
            const QDateTime reachesUs = item.pubDate.addSecs(*item.phasedRolloutInterval * context.rolloutGroup);
            if (context.now < reachesUs)
                return QStringLiteral("is being rolled out in phases and reaches this installation (group %1 of "
                                      "%2) on %3")
                    .arg(context.rolloutGroup + 1)
                    .arg(phasedRolloutGroups)
                    .arg(reachesUs.toUTC().toString(Qt::ISODate));
        }
    }
    return std::nullopt;
}
} // namespace

UpdateChoice chooseUpdate(const Appcast &appcast, const CheckContext &context)
{
    UpdateChoice choice;
    const AppcastItem *best = nullptr;
    int bestIndex = -1;
    for (const AppcastItem &item : appcast.items) {
        ItemVerdict verdict;
        verdict.position = item.position;
        verdict.label = item.version.isEmpty() ? QStringLiteral("#%1").arg(item.position) : item.versionLabel();
        if (const auto reason = refusal(item, context)) {
            verdict.explanation = *reason;
        } else {
            verdict.eligible = true;
            if (!best || compareVersions(item.version, best->version) > 0) {
                best = &item;
                bestIndex = int(choice.verdicts.size());
            }
        }
        choice.verdicts.append(verdict);
    }

    if (!best) {
        choice.summary = appcast.items.isEmpty()
            ? QStringLiteral("nothing: the feed has no items")
            : QStringLiteral("nothing: no item of the feed is eligible and newer than %1").arg(context.currentVersion);
        return choice;
    }

    choice.item = *best;
    QString what = QStringLiteral("the newest eligible version newer than %1").arg(context.currentVersion);
    if (best->isCriticalFor(context.currentVersion))
        what += QStringLiteral(", a critical update");
    if (best->isInformationalFor(context.currentVersion))
        what += QStringLiteral(", for information only (nothing to install)");
    for (int i = 0; i < choice.verdicts.size(); ++i) {
        ItemVerdict &verdict = choice.verdicts[i];
        if (i == bestIndex) {
            verdict.chosen = true;
            verdict.explanation = QStringLiteral("offered: ") + what;
        } else if (verdict.eligible) {
            const bool sameVersion = compareVersions(appcast.items.at(i).version, best->version) == 0;
            verdict.explanation = sameVersion
                ? QStringLiteral("eligible, but an earlier item has the same version")
                : QStringLiteral("eligible, but %1 is newer").arg(best->versionLabel());
        }
    }
    choice.summary = QStringLiteral("%1: %2").arg(best->versionLabel(), what);
    return choice;
}
