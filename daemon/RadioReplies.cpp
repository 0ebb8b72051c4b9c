#include "daemon/RadioReplies.h"

#include "platform/RadioTexts.h"

#include <QStringList>

using namespace Qt::StringLiterals;

std::optional<Reply> parseReply(const QByteArray &line)
{
    if (!line.startsWith('R'))
        return std::nullopt;
    const QList<QByteArray> fields = line.mid(1).split('|');
    if (fields.size() < 3)
        return std::nullopt;
    bool sequenceOk = false;
    bool codeOk = false;
    Reply reply;
    reply.sequence = fields.at(0).toUInt(&sequenceOk, 10);
    QByteArray code = fields.at(1);
    if (code.startsWith("0x") || code.startsWith("0X"))
        code = code.mid(2);
    reply.code = code.toUInt(&codeOk, 16);
    if (!sequenceOk || !codeOk || fields.at(0).isEmpty() || code.isEmpty())
        return std::nullopt;
    reply.message = QString::fromUtf8(fields.at(2));
    return reply;
}

QMap<QString, QString> parseInfo(const QString &message)
{
    QMap<QString, QString> pairs;
    qsizetype i = 0;
    const qsizetype end = message.size();
    while (i < end) {
        const qsizetype equals = message.indexOf(u'=', i);
        const qsizetype comma = message.indexOf(u',', i);
        if (equals < 0 || (comma >= 0 && comma < equals)) {
            // A token without a value: skip it.
            if (comma < 0)
                break;
            i = comma + 1;
            continue;
        }
        const QString key = message.mid(i, equals - i).trimmed();
        qsizetype v = equals + 1;
        QString value;
        if (v < end && message.at(v) == u'"') {
            const qsizetype close = message.indexOf(u'"', v + 1);
            const qsizetype stop = close < 0 ? end : close;
            value = message.mid(v + 1, stop - v - 1);
            const qsizetype next = message.indexOf(u',', stop);
            i = next < 0 ? end : next + 1;
        } else {
            const qsizetype next = message.indexOf(u',', v);
            const qsizetype stop = next < 0 ? end : next;
            value = message.mid(v, stop - v);
            i = next < 0 ? end : next + 1;
        }
        if (!key.isEmpty())
            pairs.insert(key, value);
    }
    return pairs;
}

QMap<QString, QString> parseVersions(const QString &message)
{
    QMap<QString, QString> pairs;
    for (const QString &pair : message.split(u'#', Qt::SkipEmptyParts)) {
        const qsizetype equals = pair.indexOf(u'=');
        if (equals > 0)
            pairs.insert(pair.left(equals).trimmed(), pair.mid(equals + 1).trimmed());
    }
    return pairs;
}

RadioIdentity identityFrom(const QMap<QString, QString> &info, const QMap<QString, QString> &versions)
{
    RadioIdentity identity;
    identity.model = cutTo(info.value(u"model"_s), longestModel);
    // A serial cut short would be another radio's: one longer than any radio's is none.
    identity.serial = info.value(u"chassis_serial"_s);
    if (identity.serial.size() > longestSerialNumber)
        identity.serial.clear();
    identity.name = cutTo(info.value(u"name"_s), longestRadioName);
    identity.callsign = cutTo(info.value(u"callsign"_s), longestCallsign);
    identity.version = info.value(u"software_ver"_s);
    if (identity.version.isEmpty())
        identity.version = versions.value(u"SmartSDR-MB"_s);
    identity.version = cutTo(identity.version, longestVersion);
    return identity;
}

QString radioHex(quint32 number)
{
    return u"0x"_s + QString::number(number, 16).rightJustified(8, u'0').toUpper();
}
