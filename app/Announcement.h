#pragma once

#include "config/ConfigDocument.h"
#include "service/LiveState.h"

#include <QString>

class QTimeZone;

// What the radio list and the details panel say of one radio's announcement.
struct Announcement
{
    enum class Kind { Announced, Connecting, NotAnswering, Excluded, ServiceStopped };

    Kind kind = Kind::ServiceStopped;
    QString line; // the details panel's one line
};

// live: the service's state, or nothing when no service is running (no file, or a file left
// by a process that is gone). timeZone: where "since" is shown.
Announcement announcementFor(const RadioEntry &entry, const std::optional<ServiceLiveState> &live,
                             const QTimeZone &timeZone);
