#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <variant>

inline constexpr int defaultBroadcastIntervalMs = 3000;
inline constexpr int shortestBroadcastIntervalMs = 250;
inline constexpr int longestBroadcastIntervalMs = 60000;

// One entry of "radios", as the service uses it.
struct ConfiguredRadio
{
    QString ipAddress; // as configured: "host" or "host:port"
    QString serialNumber;
    QString name;
    QString model;
    QString callsign;
    QString version;
    bool enabled = false; // only a JSON true counts
};

// What tells the configured radios apart: the address and the serial, as configured.
QString radioKey(const ConfiguredRadio &radio);

// The configured serial number, or nothing when it is the placeholder "0000-0000-0000-0000"
// that stands for a serial not yet known.
QString knownSerial(const ConfiguredRadio &radio);

struct Configuration
{
    int broadcastIntervalMs = defaultBroadcastIntervalMs;
    QList<ConfiguredRadio> radios;
};

// Checks a configuration document: UTF-8 text (after a backslash too), with no unpaired
// surrogate escape such as "\ud800" in any text, so that the app reads it the same way; a JSON
// object whose "radios" is an array of objects, each with a non-empty text "ipAddress" and a
// text "serialNumber", none of whose texts is longer than a radio's (platform/RadioTexts.h),
// and whose "broadcastIntervalMs", when present, is a whole number from 250 to 60000. Any
// other key is allowed. Returns the configuration, or one sentence that says
// what is wrong and where.
std::variant<Configuration, QString> readConfiguration(const QByteArray &bytes);
