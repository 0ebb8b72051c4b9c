#include "daemon/Configuration.h"

#include "daemon/Endpoint.h"
#include "platform/RadioTexts.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include <cmath>
#include <optional>

using namespace Qt::StringLiterals;

namespace {
// A JSON value as it would be written, for messages.
QString shown(const QJsonValue &value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    const QString text = QString::fromUtf8(array.mid(1, array.size() - 2));
    return text.size() > 40 ? text.left(39) + u'\u2026' : text;
}

// The first text, key or value, that is not valid Unicode: an escape such as "\ud800" gives a
// lone surrogate, which UTF-8 cannot carry.
std::optional<QString> unpairedSurrogateIn(const QJsonValue &value)
{
    const auto invalid = [](const QString &text) -> std::optional<QString> {
        if (text.isValidUtf16())
            return std::nullopt;
        return text;
    };
    if (value.isString())
        return invalid(value.toString());
    if (value.isArray()) {
        for (const QJsonValue &item : value.toArray())
            if (const std::optional<QString> found = unpairedSurrogateIn(item))
                return found;
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (const std::optional<QString> found = invalid(it.key()))
                return found;
            if (const std::optional<QString> found = unpairedSurrogateIn(it.value()))
                return found;
        }
    }
    return std::nullopt;
}

// The first lone surrogate of text, as its escape.
QString firstLoneSurrogate(const QString &text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        // A low surrogate that follows its high one is skipped below, so any other is alone.
        const bool paired = c.isHighSurrogate() ? i + 1 < text.size() && text.at(i + 1).isLowSurrogate()
                                                : !c.isLowSurrogate();
        if (!paired)
            return u"\\u%1"_s.arg(uint(c.unicode()), 4, 16, QChar(u'0'));
        if (c.isHighSurrogate())
            ++i;
    }
    return {};
}

QString optionalText(const QJsonObject &radio, const QString &key)
{
    const QJsonValue value = radio.value(key);
    return value.isString() ? value.toString() : QString();
}

// The first text of the entry longer than a radio's of its kind, said as the rest of a
// sentence; empty when every one fits.
QString overlongText(const ConfiguredRadio &radio)
{
    const struct
    {
        QString ConfiguredRadio::*field;
        qsizetype longest;
        QString words;
    } limits[] = {
        {&ConfiguredRadio::serialNumber, longestSerialNumber, u"serial number"_s},
        {&ConfiguredRadio::name, longestRadioName, u"name"_s},
        {&ConfiguredRadio::model, longestModel, u"model"_s},
        {&ConfiguredRadio::callsign, longestCallsign, u"callsign"_s},
        {&ConfiguredRadio::version, longestVersion, u"version"_s},
    };
    for (const auto &limit : limits) {
        const qsizetype length = (radio.*limit.field).size();
        if (length > limit.longest)
            return u"has a %1 of %2 characters; a radio's %1 has at most %3."_s.arg(
                limit.words, QString::number(length), QString::number(limit.longest));
    }
    return {};
}
} // namespace

QString radioKey(const ConfiguredRadio &radio) { return radio.ipAddress + u'\n' + radio.serialNumber; }

QString knownSerial(const ConfiguredRadio &radio)
{
    return radio.serialNumber == u"0000-0000-0000-0000"_s ? QString() : radio.serialNumber;
}

std::variant<Configuration, QString> readConfiguration(const QByteArray &bytes)
{
    if (bytes.trimmed().isEmpty())
        return u"The configuration is empty."_s;
    // Qt's parser takes any byte after a backslash; the app reads only UTF-8.
    if (!QByteArrayView(bytes).isValidUtf8())
        return u"The configuration is not UTF-8 text."_s;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        return u"The configuration is not valid JSON: %1 at byte %2."_s.arg(error.errorString()).arg(error.offset);
    if (!document.isObject())
        return u"The configuration must be a JSON object with a \"radios\" list."_s;
    const QJsonObject top = document.object();
    if (const std::optional<QString> text = unpairedSurrogateIn(top))
        return u"The configuration has an unpaired surrogate \"%1\" in a text."_s.arg(firstLoneSurrogate(*text));

    Configuration configuration;
    if (top.contains(u"broadcastIntervalMs"_s)) {
        const QJsonValue interval = top.value(u"broadcastIntervalMs"_s);
        const double number = interval.toDouble(-1);
        if (!interval.isDouble() || number != std::floor(number) || number < shortestBroadcastIntervalMs
            || number > longestBroadcastIntervalMs) {
            return u"\"broadcastIntervalMs\" must be a whole number of milliseconds from %1 to %2; it is %3."_s.arg(
                QString::number(shortestBroadcastIntervalMs), QString::number(longestBroadcastIntervalMs), shown(interval));
        }
        configuration.broadcastIntervalMs = int(number);
    }

    if (!top.contains(u"radios"_s))
        return u"The configuration has no \"radios\" list."_s;
    const QJsonValue radios = top.value(u"radios"_s);
    if (!radios.isArray())
        return u"\"radios\" must be a list of radios; it is %1."_s.arg(shown(radios));

    const QJsonArray list = radios.toArray();
    for (qsizetype i = 0; i < list.size(); ++i) {
        const QString which = u"Radio %1"_s.arg(i + 1);
        if (!list.at(i).isObject())
            return which + u" is not a JSON object; it is %1."_s.arg(shown(list.at(i)));
        const QJsonObject radio = list.at(i).toObject();
        const QJsonValue address = radio.value(u"ipAddress"_s);
        if (address.isUndefined() || address.isNull() || (address.isString() && address.toString().isEmpty()))
            return which + u" has no IP address."_s;
        if (!address.isString())
            return which + u" has an IP address that is not text: %1."_s.arg(shown(address));
        if (address.toString().size() > longestRadioAddress)
            return which + u" has an IP address of %1 characters; an address has at most %2."_s.arg(
                QString::number(address.toString().size()), QString::number(longestRadioAddress));
        if (!parseEndpoint(address.toString()))
            return which + u" has an IP address that cannot be used: \"%1\"."_s.arg(address.toString());
        const QJsonValue serial = radio.value(u"serialNumber"_s);
        if (serial.isUndefined() || serial.isNull())
            return which + u" (%1) has no serial number."_s.arg(address.toString());
        if (!serial.isString())
            return which + u" (%1) has a serial number that is not text: %2."_s.arg(address.toString(), shown(serial));

        ConfiguredRadio entry;
        entry.ipAddress = address.toString();
        entry.serialNumber = serial.toString();
        entry.name = optionalText(radio, u"name"_s);
        entry.model = optionalText(radio, u"model"_s);
        entry.callsign = optionalText(radio, u"callsign"_s);
        entry.version = optionalText(radio, u"version"_s);
        entry.enabled = radio.value(u"enabled"_s).isBool() && radio.value(u"enabled"_s).toBool();
        if (const QString overlong = overlongText(entry); !overlong.isEmpty())
            return which + u" (%1) "_s.arg(entry.ipAddress) + overlong;
        configuration.radios.append(entry);
    }
    return configuration;
}
