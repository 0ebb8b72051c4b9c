#pragma once

#include "updates/BundleInfo.h"

#include <QDateTime>

// The update choices in force and when they need the engine, from the user's settings
// (UpdateUserSettings) over the bundle's Info.plist. Qt Core only: the app decides with them
// whether to load the engine at all, and the engine schedules its checks by the same rule.

// The user's SUEnableAutomaticChecks, else Info.plist's, else false.
bool automaticChecksInForce(const BundleInfo &bundle);
// Seconds between scheduled checks (0: never): the user's choice, else Info.plist's.
qint64 checkIntervalInForce(const BundleInfo &bundle);

// When the next scheduled check is due: never (invalid) while automatic checks are off or the
// interval is 0; now when there was no check yet; an interval from now when the last check
// lies in the future (the clock went back); else an interval after the last check, or now if
// that has passed.
QDateTime nextScheduledCheck(const BundleInfo &bundle, const QDateTime &now);

// The second launch asks whether to check automatically, unless the user or Info.plist decided.
bool permissionQuestionDue(const BundleInfo &bundle, bool launchedBefore);

// When this run needs the engine without being asked: now for the second launch's question,
// else at the next scheduled check; never (invalid) when neither is due.
QDateTime engineNeededAt(const BundleInfo &bundle, bool launchedBefore, const QDateTime &now);

// QTimer counts milliseconds in an int: the wait until due, or the longest step towards it.
int timerStepUntil(const QDateTime &due, const QDateTime &now);
