#include "service/LiveState.h"

#include "platform/Error.h"
#include "platform/Json.h"

#include <QJsonArray>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {
// Text from the file is shown in one line; anything longer than this is not the service's.
constexpr qsizetype longestText = 1024;

std::optional<QString> textAt(const QJsonObject &object, const QString &key, bool required = true)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return required ? std::nullopt : std::optional<QString>(QString());
    if (!value.isString() || value.toString().size() > longestText)
        return std::nullopt;
    return value.toString();
}

std::optional<LiveRadio::Phase> phaseNamed(const QString &name)
{
    if (name == u"announced"_s)
        return LiveRadio::Phase::Announced;
    if (name == u"connecting"_s)
        return LiveRadio::Phase::Connecting;
    if (name == u"notAnswering"_s)
        return LiveRadio::Phase::NotAnswering;
    return std::nullopt;
}

std::optional<LiveRadio> radioFrom(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto serial = textAt(object, u"serialNumber"_s);
    const auto address = textAt(object, u"ipAddress"_s);
    const auto state = textAt(object, u"state"_s);
    const auto since = textAt(object, u"since"_s);
    const auto reason = textAt(object, u"reason"_s, false);
    const auto status = textAt(object, u"status"_s, false);
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
            const auto program = textAt(client.toObject(), u"program"_s);
            const auto station = textAt(client.toObject(), u"station"_s);
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
    for (const QJsonValue &value : radios.toArray()) {
        const std::optional<LiveRadio> radio = radioFrom(value);
        if (!radio)
            return std::nullopt;
        state.radios.append(*radio);
    }
    return state;
}
