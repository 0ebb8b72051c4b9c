#pragma once

#include "config/ConfigDocument.h"

#include <QList>
#include <QMap>
#include <QString>

// What the radio table and the details panel show, decided without any widget.

struct RadioCellText
{
    QString title;    // the radio's name, or "Radio"
    QString subtitle; // "<address>  ·  Enabled" or "…  ·  Disabled"
    QString spoken;   // both lines as a screen reader reads them: "<name>, <address>, Enabled"
};
RadioCellText radioCellText(const RadioEntry &entry);

struct DetailField
{
    QString key;     // key in the radio entry
    QString caption; // caption above the value
    QString spoken;  // the caption in sentence case, as a screen reader should say it
};
// The five fields of the details panel, in the order shown.
const QList<DetailField> &detailFields();

struct DetailsContent
{
    QString title;
    QMap<QString, QString> values; // by entry key; "—" when the entry holds no string
    bool controlsEnabled = false;  // check box and "Remove Radio"
    bool included = false;         // the check box is on
};
DetailsContent detailsContent(const RadioEntries &entries, int selectedRow);

// A value label's accessible name: "Serial number: 0621-1104-7402".
QString spokenDetail(const DetailField &field, const QString &value);

// Only a JSON true counts as enabled.
bool isEnabled(const RadioEntry &entry);

// The row selected after a rebuild of the list: the old row clamped into range, row 0
// when there was none, -1 when the list is empty.
int rowToSelect(int previousRow, int count);
