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

namespace {
QString keyOf(const QString &serial, const QString &address) { return serial + u'\n' + address; }
} // namespace

LiveRadioIndex::LiveRadioIndex(const std::optional<ServiceLiveState> &live) : m_running(live.has_value())
{
    if (!live)
        return;
    m_radios.reserve(live->radios.size());
    for (const LiveRadio &radio : live->radios)
        m_radios.insert(keyOf(radio.serialNumber, radio.ipAddress), radio);
}

const LiveRadio *LiveRadioIndex::find(const RadioEntry &entry) const
{
    const auto found = m_radios.constFind(
        keyOf(entry.value(u"serialNumber"_s).toString(), entry.value(u"ipAddress"_s).toString()));
    return found == m_radios.constEnd() ? nullptr : &found.value();
}

Announcement announcementFor(const RadioEntry &entry, const LiveRadioIndex &live, const QTimeZone &timeZone)
{
    if (!isEnabled(entry))
        return {Announcement::Kind::Excluded, u"Not announced: excluded from discovery"_s};
    if (!live.serviceRunning())
        return {Announcement::Kind::ServiceStopped, u"Not announced: the service is not running"_s};
    // Not in the file (the service has still to take in the latest configuration) counts as
    // connecting.
    const LiveRadio *radio = live.find(entry);
    if (radio && radio->phase == LiveRadio::Phase::Announced)
        return {Announcement::Kind::Announced, clientsLine(*radio)};
    if (radio && radio->phase == LiveRadio::Phase::NotAnswering)
        return {Announcement::Kind::NotAnswering,
                u"Not answering: %1, since %2"_s.arg(radio->reason, sinceText(radio->since, timeZone))};
    if (radio && radio->phase == LiveRadio::Phase::NotAnnounced)
        return {Announcement::Kind::NotAnnounced,
                u"Not announced: %1, since %2"_s.arg(radio->reason, sinceText(radio->since, timeZone))};
    return {Announcement::Kind::Connecting, u"Connecting\u2026"_s};
}
