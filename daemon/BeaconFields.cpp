#include "daemon/BeaconFields.h"

#include <QStringList>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {
// What the radio's beacon says about itself; FLEX-6000 and 8000 radios take two GUI clients.
constexpr int defaultLicensedClients = 2;

QString firstOf(const QString &preferred, const QString &fallback) { return preferred.isEmpty() ? fallback : preferred; }

QString model(const RadioState &state, const ConfiguredRadio &configured)
{
    const QString reported = state.identity.model;
    // "info" leaves out the "M" that the front-panel models carry in their beacon.
    if (!reported.isEmpty() && configured.model.size() > reported.size() && configured.model.startsWith(reported))
        return configured.model;
    return firstOf(reported, configured.model);
}

// Without a word from the radio, its licence reaches the major number of its own software.
QString maxLicensedVersion(const RadioState &state)
{
    if (state.stated.contains(u"max_licensed_version"_s))
        return state.stated.value(u"max_licensed_version"_s);
    if (state.licensedMajor)
        return u"v"_s + QString::number(*state.licensedMajor);
    bool ok = false;
    const int major = state.identity.version.section(u'.', 0, 0).toInt(&ok);
    return ok ? u"v"_s + QString::number(major) : QString();
}

QString joined(const QList<GuiClient> &clients, QString GuiClient::*field)
{
    QStringList values;
    for (const GuiClient &client : clients)
        values << client.*field;
    return values.join(u',');
}

// Client addresses come only where the radio says them: the whole list, or none of it.
QString joinedWhereKnown(const QList<GuiClient> &clients, QString GuiClient::*field)
{
    const bool anyKnown = std::any_of(clients.begin(), clients.end(), [&](const GuiClient &c) { return !(c.*field).isEmpty(); });
    return anyKnown ? joined(clients, field) : QString();
}

QString handles(const QList<GuiClient> &clients)
{
    QStringList values;
    for (const GuiClient &client : clients)
        values << radioHex(client.handle);
    return values.join(u',');
}

QString inUse(const QList<GuiClient> &clients, QString GuiClient::*field)
{
    QStringList values;
    for (const GuiClient &client : clients)
        if (!(client.*field).isEmpty())
            values << client.*field;
    return values.join(u',');
}
} // namespace

QString announcedSerial(const RadioState &state, const ConfiguredRadio &configured)
{
    return firstOf(state.identity.serial, knownSerial(configured));
}

QList<BeaconField> beaconFields(const RadioState &state, const ConfiguredRadio &configured, const QString &ip, quint16 port)
{
    const QList<GuiClient> &clients = state.guiClients;
    bool ok = false;
    const int statedLicensed = state.stated.value(u"licensed_clients"_s).toInt(&ok);
    const int licensedClients = ok && statedLicensed >= 0 ? statedLicensed : defaultLicensedClients;
    const int availableClients = std::max(0, licensedClients - int(clients.size()));
    // "info" gives the slices a radio has; its panadapters are as many, or more when it says so.
    const int maxSlices = std::max(state.info.value(u"num_slice"_s).toInt(), state.freeSlices.value_or(0));
    const int maxPanadapters = std::max(maxSlices, state.freePanadapters.value_or(0));
    return {
        {u"discovery_protocol_version"_s, u"3.0.0.1"_s},
        {u"model"_s, model(state, configured)},
        {u"serial"_s, announcedSerial(state, configured)},
        {u"version"_s, state.identity.version},
        {u"nickname"_s, firstOf(state.nickname, configured.name)},
        {u"callsign"_s, firstOf(state.callsign, configured.callsign)},
        {u"ip"_s, ip},
        {u"port"_s, QString::number(port)},
        {u"status"_s, availableClients == 0 ? u"In_Use"_s : u"Available"_s},
        {u"inuse_ip"_s, inUse(clients, &GuiClient::ip)},
        {u"inuse_host"_s, inUse(clients, &GuiClient::host)},
        {u"max_licensed_version"_s, maxLicensedVersion(state)},
        {u"radio_license_id"_s,
         state.stated.value(u"radio_license_id"_s, state.info.value(u"mac"_s).replace(u':', u'-'))},
        {u"requires_additional_license"_s, state.stated.value(u"requires_additional_license"_s, u"0"_s)},
        {u"fpc_mac"_s, state.stated.value(u"fpc_mac"_s)},
        {u"wan_connected"_s, state.wanConnected.value_or(false) ? u"1"_s : u"0"_s},
        {u"licensed_clients"_s, QString::number(licensedClients)},
        {u"available_clients"_s, QString::number(availableClients)},
        {u"max_panadapters"_s, QString::number(maxPanadapters)},
        {u"available_panadapters"_s, QString::number(state.freePanadapters.value_or(maxPanadapters))},
        {u"max_slices"_s, QString::number(maxSlices)},
        {u"available_slices"_s, QString::number(state.freeSlices.value_or(maxSlices))},
        {u"gui_client_ips"_s, joinedWhereKnown(clients, &GuiClient::ip)},
        {u"gui_client_hosts"_s, joinedWhereKnown(clients, &GuiClient::host)},
        {u"gui_client_programs"_s, joined(clients, &GuiClient::program)},
        {u"gui_client_stations"_s, joined(clients, &GuiClient::station)},
        {u"gui_client_handles"_s, handles(clients)},
    };
}
