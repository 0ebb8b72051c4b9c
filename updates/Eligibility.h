#pragma once

#include "updates/Appcast.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <optional>

enum class CheckKind { UserInitiated, Scheduled };

// Everything besides the feed that decides which item a check offers.
struct CheckContext
{
    QString currentVersion; // the bundle's CFBundleVersion
    QString systemVersion;  // the kernel's release
    CheckKind kind = CheckKind::UserInitiated;
    QString skippedVersion; // scheduled checks pass over it
    QDateTime now;
    int rolloutGroup = 0; // 0…6: how long phased rollouts make this installation wait
};

constexpr int phasedRolloutGroups = 7;

struct ItemVerdict
{
    int position = 0;    // the item's place in the feed, 1-based
    QString label;       // its version as users read it, or "#N" when it has none
    bool eligible = false;
    bool chosen = false;
    QString explanation; // why it is offered, passed over or refused
};

struct UpdateChoice
{
    std::optional<AppcastItem> item; // the item to offer, if any
    QList<ItemVerdict> verdicts;     // one per feed item, in feed order
    QString summary;                 // why this item, or why none
};

// Only Linux items count (an item without sparkle:os is for macOS in a shared feed); items on
// a channel are for testers who opted in, which this app offers no way to do, so they are
// passed over. Among items within the system version range and newer than the current
// version, the highest version wins (the first one on a tie). Skipped versions and phased
// rollout apply to scheduled checks only; critical updates are never held back by either.
UpdateChoice chooseUpdate(const Appcast &appcast, const CheckContext &context);
