#pragma once

#include "platform/Error.h"
#include "updates/Appcast.h"
#include "updates/Eligibility.h"

#include <functional>
#include <optional>

// What the host app decides about an update. Every call comes on the main thread.
class UpdaterDelegate
{
public:
    virtual ~UpdaterDelegate() = default;

    // Before an update found by a check is offered to the user or acted upon. Return an Error
    // (or throw one) to refuse: the session ends, and the error is shown to the user when the
    // check was user-initiated and dropped silently when it was scheduled.
    virtual std::optional<Error> shouldProceedWithUpdate(const AppcastItem &item, CheckKind check)
    {
        Q_UNUSED(item);
        Q_UNUSED(check);
        return std::nullopt;
    }

    // Asked once, after the user chose "Install and Relaunch" and before the bundles are
    // swapped. Return false to go ahead now. Return true to postpone, and call install()
    // later (once, on the main thread) to swap and relaunch; if the app quits first, the
    // update is installed at quit without a relaunch.
    virtual bool shouldPostponeRelaunch(const AppcastItem &item, std::function<void()> install)
    {
        Q_UNUSED(item);
        Q_UNUSED(install);
        return false;
    }

    // Asked when the app quits with an update staged. Return false to leave it uninstalled
    // (its staged copy is deleted; the next check offers the update again).
    virtual bool shouldInstallOnQuit(const AppcastItem &item)
    {
        Q_UNUSED(item);
        return true;
    }
};
