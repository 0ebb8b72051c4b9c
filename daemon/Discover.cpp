#include "daemon/Discover.h"

#include "daemon/Log.h"
#include "daemon/RadioConnection.h"
#include "platform/RadioTexts.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {
constexpr RadioConnection::Limits discoveryLimits{5000, 15000};
const QString checkTheVpn = u"Check that the VPN to the radio's network is connected and that the address is right."_s;

QString portText(const Endpoint &endpoint) { return QString::number(endpoint.port); }

// " on port 4992" unless the address already names its port.
QString onPort(const QString &address, const Endpoint &endpoint)
{
    return address.contains(u':') ? QString() : u" on port %1"_s.arg(portText(endpoint));
}

// What went wrong, for the person who typed the address.
QString describe(const QString &address, const Endpoint &endpoint, const ConnectionFailure &failure)
{
    using Kind = ConnectionFailure::Kind;
    switch (failure.kind) {
    case Kind::UnknownHost:
        return u"Cannot find %1: no such host name is known. "_s.arg(endpoint.host) + checkTheVpn;
    case Kind::Refused:
        return u"%1 refused the connection%2: no radio is listening there. Check the address, "
               u"and that the radio is switched on."_s.arg(address, onPort(address, endpoint));
    case Kind::ConnectTimeout:
        return u"Cannot reach %1: no answer to the connection within %2 seconds. "_s.arg(
                   address, QString::number(discoveryLimits.connectMs / 1000)) + checkTheVpn;
    case Kind::Unreachable:
        return u"Cannot reach %1: %2. "_s.arg(address, failure.detail) + checkTheVpn;
    case Kind::NotARadio:
    case Kind::LineTooLong:
    case Kind::Flood:
        return u"%1 answered%2, but not as a FlexRadio does: this is not a radio. Check the address."_s.arg(
            address, onPort(address, endpoint));
    case Kind::Closed:
        return u"%1 closed the connection before it sent the radio's details. Another program may be using "
               u"the radio, or it is not a radio; try again."_s.arg(address);
    case Kind::AnswerTimeout:
        return u"%1 accepted the connection but did not send the radio's details within %2 seconds. "
               u"Check that the address is the radio's, and try again."_s.arg(
                   address, QString::number(discoveryLimits.totalMs / 1000));
    case Kind::Network:
        return u"Cannot talk to %1: %2. "_s.arg(address, failure.detail) + checkTheVpn;
    case Kind::NoResources:
        return u"Cannot connect to %1: this computer has no file descriptors or memory left for another "
               u"connection. Close some programs and try again."_s.arg(address);
    }
    return {};
}
} // namespace

int runDiscovery(const QString &address)
{
    const std::optional<Endpoint> endpoint = parseEndpoint(address);
    if (!endpoint) {
        logLine(u"\"%1\" is not a radio address: give an IPv4 address or host name, optionally followed by "
                u"\":\" and a port from 1 to 65535."_s.arg(address));
        return 2;
    }

    printLine(u"Connecting to %1 on port %2\u2026"_s.arg(endpoint->host, portText(*endpoint)));
    QEventLoop loop;
    ConnectionOutcome outcome;
    RadioConnection connection(*endpoint, {u"info"_s, u"version"_s}, discoveryLimits, [&](const ConnectionOutcome &result) {
        outcome = result;
        loop.quit();
    });
    connection.onConnected([] { printLine(u"Connected; reading the radio's details\u2026"_s); });
    connection.start();
    loop.exec();

    if (outcome.failure) {
        logLine(describe(address, *endpoint, *outcome.failure));
        return 1;
    }
    const QStringList commands{u"info"_s, u"version"_s};
    for (qsizetype i = 0; i < outcome.replies.size(); ++i) {
        const Reply &reply = outcome.replies.at(i);
        if (reply.code != 0) {
            QString text = u"The radio at %1 answered \"%2\" with error %3"_s.arg(address, commands.at(i), radioHex(reply.code));
            if (!reply.message.isEmpty())
                text += u" (%1)"_s.arg(reply.message);
            logLine(text + u". Restart the radio or try again later."_s);
            return 1;
        }
    }

    const QMap<QString, QString> info = parseInfo(outcome.replies.at(0).message);
    const RadioIdentity identity = identityFrom(info, parseVersions(outcome.replies.at(1).message));
    if (const qsizetype length = info.value(u"chassis_serial"_s).size(); length > longestSerialNumber) {
        logLine(u"The radio at %1 reported a serial number of %2 characters; a radio's has at most %3, so this "
                u"is not a radio's serial number and the radio cannot be told apart from others."_s.arg(
                    address, QString::number(length), QString::number(longestSerialNumber)));
        return 1;
    }
    if (identity.serial.isEmpty()) {
        logLine(u"The radio at %1 answered, but did not report its serial number, so it cannot be told apart "
                u"from other radios."_s.arg(address));
        return 1;
    }
    const QJsonObject radio{
        {u"ipAddress"_s, address},
        {u"serialNumber"_s, identity.serial},
        {u"name"_s, identity.name},
        {u"model"_s, identity.model},
        {u"callsign"_s, identity.callsign},
        {u"version"_s, identity.version},
        {u"enabled"_s, true},
    };
    printLine(u"Found %1 %2 (serial %3)."_s.arg(identity.model, identity.name, identity.serial).simplified());
    printLine(QString::fromUtf8(QJsonDocument(radio).toJson(QJsonDocument::Compact)));
    return 0;
}
