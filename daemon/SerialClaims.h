#pragma once

#include <QHash>
#include <QString>

#include <optional>

// Which radio announces each serial number. Listeners keep one radio per serial, so two radios
// announced with the same one would take turns at two addresses; of the radios that answer
// with the same serial, only the first in the configuration's order is announced.
class SerialClaims
{
public:
    // The radio of `key`, at `rank` in the configuration's order, would announce `serial`.
    // Nothing when it may (it holds the serial from now on, and whatever other serial it held
    // is free); else the label of the radio that holds the serial, which comes before it.
    std::optional<QString> claim(const QString &serial, const QString &key, int rank, const QString &label);
    // The radio of `key` announces nothing any more.
    void release(const QString &key);

private:
    struct Holder
    {
        QString key;
        int rank = 0;
        QString label;
    };

    QHash<QString, Holder> m_holders;  // by serial
    QHash<QString, QString> m_serials; // the serial that each radio holds, by its key
};
