#include "app/Announcement.h"

#include "app/RadioPresentation.h"

#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {
QString clientsLine(const LiveRadio &radio)
{
    QString line = u"Announced \u00B7 %1 of %2 clients in use"_s.arg(QString::number(radio.guiClients.size()),
                                                                     QString::number(radio.licensedClients));
    QStringList names;
    for (const auto &[program, station] : radio.guiClients)
        names << (station.isEmpty() ? program : u"%1 at %2"_s.arg(program, station));
    if (!names.isEmpty())
        line += u" ("_s + names.join(u", "_s) + u')';
    return line;
}

QString sinceText(const QDateTime &since, const QTimeZone &timeZone)
{
    const QDateTime local = since.toTimeZone(timeZone);
    const QDateTime now = QDateTime::currentDateTime().toTimeZone(timeZone);
    return local.date() == now.date() ? local.toString(u"HH:mm"_s) : local.toString(u"yyyy-MM-dd HH:mm"_s);
}
} // namespace

Announcement announcementFor(const RadioEntry &entry, const std::optional<ServiceLiveState> &live,
                             const QTimeZone &timeZone)
{
    if (!isEnabled(entry))
        return {Announcement::Kind::Excluded, u"Not announced: excluded from discovery"_s};
    if (!live)
        return {Announcement::Kind::ServiceStopped, u"Not announced: the service is not running"_s};
    const QString serial = entry.value(u"serialNumber"_s).toString();
    const QString address = entry.value(u"ipAddress"_s).toString();
    for (const LiveRadio &radio : live->radios) {
        if (radio.serialNumber != serial || radio.ipAddress != address)
            continue;
        switch (radio.phase) {
        case LiveRadio::Phase::Announced:
            return {Announcement::Kind::Announced, clientsLine(radio)};
        case LiveRadio::Phase::NotAnswering:
            return {Announcement::Kind::NotAnswering,
                    u"Not answering: %1, since %2"_s.arg(radio.reason, sinceText(radio.since, timeZone))};
        case LiveRadio::Phase::Connecting:
            break;
        }
        break;
    }
    // Not in the file yet: the service has still to take in the latest configuration.
    return {Announcement::Kind::Connecting, u"Connecting\u2026"_s};
}
