#pragma once

#include "config/ConfigDocument.h"
#include "service/LiveState.h"

#include <QHash>
#include <QString>

class QTimeZone;

// What the radio list and the details panel say of one radio's announcement.
struct Announcement
{
    enum class Kind { Announced, Connecting, NotAnswering, NotAnnounced, Excluded, ServiceStopped };

    Kind kind = Kind::ServiceStopped;
    QString line; // the details panel's one line
};

// The service's radios by serial and address, looked up once per entry however many there are.
// Built from nothing when no service is running (no file, or a file left by a process that is
// gone).
class LiveRadioIndex
{
public:
    explicit LiveRadioIndex(const std::optional<ServiceLiveState> &live);

    bool serviceRunning() const { return m_running; }
    const LiveRadio *find(const RadioEntry &entry) const;

private:
    bool m_running = false;
    QHash<QString, LiveRadio> m_radios;
};

// timeZone: where "since" is shown.
Announcement announcementFor(const RadioEntry &entry, const LiveRadioIndex &live, const QTimeZone &timeZone);
