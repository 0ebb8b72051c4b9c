#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <optional>

// What the radio's command API says, line by line.

// "R<seq>|<hex code>|<message>[|<debug>]": the one answer to command <seq>.
struct Reply
{
    quint32 sequence = 0;
    quint32 code = 0; // 0 is success; errors look like 0x5000xxxx
    QString message;
};

// Nothing when the line is not a well-formed reply.
std::optional<Reply> parseReply(const QByteArray &line);

// The "info" answer: comma-separated key=value pairs, some values in double quotes (which may
// hold commas). Quotes are stripped.
QMap<QString, QString> parseInfo(const QString &message);

// The "version" answer: "#"-separated key=value pairs ("SmartSDR-MB=3.3.32.8203#…").
QMap<QString, QString> parseVersions(const QString &message);

// Who a radio is, in the words of its own answers.
struct RadioIdentity
{
    QString model;
    QString serial;
    QString name;
    QString callsign;
    QString version;
};

// model ← model, serial ← chassis_serial, name ← name, callsign ← callsign, version ←
// software_ver or else the version answer's SmartSDR-MB; each cut to what a radio has
// (platform/RadioTexts.h), but a serial longer than any radio's is left out whole.
RadioIdentity identityFrom(const QMap<QString, QString> &info, const QMap<QString, QString> &versions = {});

// "0x50000016", "0x7022E1CF": how the radio writes its codes and its clients' handles.
QString radioHex(quint32 number);
