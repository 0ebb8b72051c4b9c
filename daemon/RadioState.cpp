#include "daemon/RadioState.h"

#include <QStringList>

using namespace Qt::StringLiterals;

namespace {
// Radios send a space inside a status value as 0x7F; control characters have no place in a
// beacon, and nothing the radio says may outgrow one.
QString cleaned(const QString &value)
{
    QString text;
    for (const QChar c : value) {
        if (c == QChar(0x7F))
            text += u' ';
        else if (c.unicode() >= 0x20)
            text += c;
        if (text.size() >= longestRadioText)
            break;
    }
    return text;
}

std::optional<int> count(const QString &text)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    return ok && number >= 0 && number <= 1000 ? std::optional<int>(number) : std::nullopt;
}

std::optional<quint32> handleFrom(const QString &text)
{
    bool ok = false;
    const quint32 handle = text.startsWith(u"0x"_s, Qt::CaseInsensitive) ? text.mid(2).toUInt(&ok, 16) : 0;
    return ok ? std::optional<quint32>(handle) : std::nullopt;
}

// Beacon keys that a radio may state in its own status lines; where it does, its word wins.
const QStringList statedKeys{u"max_licensed_version"_s, u"radio_license_id"_s, u"requires_additional_license"_s,
                             u"fpc_mac"_s, u"licensed_clients"_s};

void applyClient(RadioState &state, const QStringList &object, const QMap<QString, QString> &pairs, quint32 ownHandle)
{
    const std::optional<quint32> handle = handleFrom(object.value(1));
    if (!handle || *handle == ownHandle)
        return;
    const auto known = std::find_if(state.guiClients.begin(), state.guiClients.end(),
                                    [&](const GuiClient &client) { return client.handle == *handle; });
    const QString change = object.value(2);
    if (change == u"disconnected"_s) {
        if (known != state.guiClients.end())
            state.guiClients.erase(known);
        return;
    }
    if (change != u"connected"_s)
        return;
    if (known == state.guiClients.end() && state.guiClients.size() >= mostGuiClients)
        return;
    GuiClient &client = known != state.guiClients.end() ? *known : state.guiClients.emplace_back();
    client.handle = *handle;
    // A client's line may come first without its station and again with it: keep what is known.
    for (const auto &[key, field] : {std::pair{u"program"_s, &GuiClient::program}, std::pair{u"station"_s, &GuiClient::station},
                                     std::pair{u"ip"_s, &GuiClient::ip}, std::pair{u"host"_s, &GuiClient::host}}) {
        if (pairs.contains(key))
            client.*field = pairs.value(key);
    }
}
} // namespace

void takeIdentity(RadioState &state, const QMap<QString, QString> &info, const QMap<QString, QString> &versions)
{
    state.info.clear();
    for (auto it = info.begin(); it != info.end() && state.info.size() < 64; ++it)
        state.info.insert(it.key().left(longestRadioText), cleaned(it.value()));
    state.identity = identityFrom(state.info, versions);
    state.identity.version = cleaned(state.identity.version);
    // Status lines answer later than "info" and may already have renamed the radio.
    if (state.nickname.isEmpty())
        state.nickname = state.identity.name;
    if (state.callsign.isEmpty())
        state.callsign = state.identity.callsign;
}

void applyStatus(RadioState &state, const QString &text, quint32 ownHandle)
{
    QStringList object;
    QMap<QString, QString> pairs;
    for (const QString &token : text.split(u' ', Qt::SkipEmptyParts)) {
        const qsizetype equals = token.indexOf(u'=');
        if (equals < 0) {
            if (pairs.isEmpty() && object.size() < 4)
                object << token;
        } else if (pairs.size() < 64) {
            pairs.insert(token.left(equals), cleaned(token.mid(equals + 1)));
        }
    }
    const QString kind = object.value(0);
    if (kind == u"client"_s)
        return applyClient(state, object, pairs, ownHandle);
    if (kind == u"wan"_s && object.size() == 1 && pairs.contains(u"server_connected"_s)) {
        state.wanConnected = pairs.value(u"server_connected"_s) == u"1"_s;
        return;
    }
    if (kind == u"license"_s && object.size() == 1) {
        if (const std::optional<int> major = count(pairs.value(u"highest_major_version"_s)))
            state.licensedMajor = major;
    } else if (kind == u"radio"_s && object.size() == 1) {
        // "radio filter_sharpness …" and the like are other objects of the radio.
        if (const std::optional<int> slices = count(pairs.value(u"slices"_s)))
            state.freeSlices = slices;
        if (const std::optional<int> panadapters = count(pairs.value(u"panadapters"_s)))
            state.freePanadapters = panadapters;
        if (pairs.contains(u"nickname"_s))
            state.nickname = cutTo(pairs.value(u"nickname"_s), longestRadioName);
        if (pairs.contains(u"callsign"_s))
            state.callsign = cutTo(pairs.value(u"callsign"_s), longestCallsign);
    } else {
        return;
    }
    for (const QString &key : statedKeys)
        if (pairs.contains(key))
            state.stated.insert(key, pairs.value(key));
}
