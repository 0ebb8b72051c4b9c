#include "service/LiveState.h"

#include "platform/Error.h"
#include "platform/Json.h"
#include "platform/RadioTexts.h"

#include <QJsonArray>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {
// The service writes no text longer than a radio's of its kind; a longer one is not its.
std::optional<QString> textAt(const QJsonObject &object, const QString &key, qsizetype longest, bool required = true)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return required ? std::nullopt : std::optional<QString>(QString());
    if (!value.isString() || value.toString().size() > longest)
        return std::nullopt;
    return value.toString();
}

// The phase's name, the time and the kind of "since" are short words of the service's own.
constexpr qsizetype longestWord = 64;

std::optional<LiveRadio::Phase> phaseNamed(const QString &name)
{
    if (name == u"announced"_s)
        return LiveRadio::Phase::Announced;
    if (name == u"connecting"_s)
        return LiveRadio::Phase::Connecting;
    if (name == u"notAnswering"_s)
        return LiveRadio::Phase::NotAnswering;
    if (name == u"notAnnounced"_s)
        return LiveRadio::Phase::NotAnnounced;
    return std::nullopt;
}

std::optional<LiveRadio> radioFrom(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto serial = textAt(object, u"serialNumber"_s, longestSerialNumber);
    const auto address = textAt(object, u"ipAddress"_s, longestRadioAddress);
    const auto state = textAt(object, u"state"_s, longestWord);
    const auto since = textAt(object, u"since"_s, longestWord);
    const auto reason = textAt(object, u"reason"_s, longestReason, false);
    const auto status = textAt(object, u"status"_s, longestRadioText, false);
    if (!serial || !address || !state || !since || !reason || !status)
        return std::nullopt;
    const auto phase = phaseNamed(*state);
    const QDateTime sinceTime = QDateTime::fromString(*since, Qt::ISODateWithMs);
    if (!phase || !sinceTime.isValid())
        return std::nullopt;

    LiveRadio radio{*serial, *address, *phase, *reason, sinceTime, *status, 0, {}};
    const QJsonValue licensed = object.value(u"licensedClients"_s);
    if (!licensed.isUndefined()) {
        if (!licensed.isDouble() || licensed.toDouble() < 0 || licensed.toDouble() > 64)
            return std::nullopt;
        radio.licensedClients = licensed.toInt();
    }
    const QJsonValue clients = object.value(u"guiClients"_s);
    if (!clients.isUndefined()) {
        if (!clients.isArray() || clients.toArray().size() > 64)
            return std::nullopt;
        for (const QJsonValue &client : clients.toArray()) {
            const auto program = textAt(client.toObject(), u"program"_s, longestRadioText);
            const auto station = textAt(client.toObject(), u"station"_s, longestRadioText);
            if (!client.isObject() || !program || !station)
                return std::nullopt;
            radio.guiClients.append({*program, *station});
        }
    }
    return radio;
}

} // namespace

std::optional<ServiceLiveState> parseLiveState(const QByteArray &bytes)
{
    if (bytes.size() > largestLiveState)
        return std::nullopt;
    std::optional<QJsonObject> document;
    try {
        const QJsonDocument parsed = readJson(bytes);
        if (!parsed.isObject())
            return std::nullopt;
        document = parsed.object();
    } catch (const Error &) {
        return std::nullopt;
    }
    const QJsonValue pid = document->value(u"pid"_s);
    const QJsonValue radios = document->value(u"radios"_s);
    if (!pid.isDouble() || pid.toDouble() < 1 || pid.toDouble() > 4194304 || !radios.isArray())
        return std::nullopt;
    ServiceLiveState state;
    state.pid = qint64(pid.toDouble());
    for (const QJsonValue &value : radios.toArray())
        if (const std::optional<LiveRadio> radio = radioFrom(value))
            state.radios.append(*radio);
    return state;
}
