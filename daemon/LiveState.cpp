#include "daemon/LiveState.h"

#include "platform/RadioTexts.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {
QString phaseName(RadioLiveState::Phase phase)
{
    switch (phase) {
    case RadioLiveState::Phase::Announced: return u"announced"_s;
    case RadioLiveState::Phase::NotAnswering: return u"notAnswering"_s;
    case RadioLiveState::Phase::NotAnnounced: return u"notAnnounced"_s;
    case RadioLiveState::Phase::Connecting: break;
    }
    return u"connecting"_s;
}

// UTC with milliseconds, as ISO 8601: every reader can parse it, whatever its time zone.
QJsonValue timeValue(const QDateTime &time)
{
    return time.isValid() ? QJsonValue(time.toUTC().toString(Qt::ISODateWithMs)) : QJsonValue();
}

QJsonObject radioObject(const RadioLiveState &radio)
{
    QJsonArray clients;
    for (const LiveClient &client : radio.guiClients)
        clients.append(QJsonObject{{u"program"_s, cutTo(client.program, longestRadioText)},
                                   {u"station"_s, cutTo(client.station, longestRadioText)}});
    QJsonObject object{
        {u"serialNumber"_s, cutTo(radio.serialNumber, longestSerialNumber)},
        {u"ipAddress"_s, cutTo(radio.ipAddress, longestRadioAddress)},
        {u"name"_s, cutTo(radio.name, longestRadioName)},
        {u"state"_s, phaseName(radio.phase)},
        {u"since"_s, timeValue(radio.since)},
        {u"lastBeacon"_s, timeValue(radio.lastBeacon)},
    };
    if (radio.phase == RadioLiveState::Phase::NotAnswering || radio.phase == RadioLiveState::Phase::NotAnnounced)
        object.insert(u"reason"_s, cutTo(radio.reason, longestReason));
    if (radio.phase == RadioLiveState::Phase::Announced) {
        object.insert(u"status"_s, cutTo(radio.status, longestRadioText));
        object.insert(u"licensedClients"_s, radio.licensedClients);
        object.insert(u"guiClients"_s, clients);
    }
    return object;
}
} // namespace

bool RadioLiveState::sameShownState(const RadioLiveState &other) const
{
    return serialNumber == other.serialNumber && ipAddress == other.ipAddress && name == other.name
           && phase == other.phase && reason == other.reason && since == other.since && status == other.status
           && licensedClients == other.licensedClients && guiClients == other.guiClients;
}

QByteArray liveStateDocument(const QList<RadioLiveState> &radios, qint64 pid, const QDateTime &written)
{
    QJsonArray list;
    for (const RadioLiveState &radio : radios)
        list.append(radioObject(radio));
    const QJsonObject document{
        {u"pid"_s, pid},
        {u"written"_s, timeValue(written)},
        {u"radios"_s, list},
    };
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}
