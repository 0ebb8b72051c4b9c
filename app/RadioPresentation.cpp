#include "app/RadioPresentation.h"

#include <QStringList>

#include <algorithm>

namespace {
const QString noValue = QStringLiteral("\u2014");
}

bool isEnabled(const RadioEntry &entry)
{
    const QJsonValue enabled = entry.value(QStringLiteral("enabled"));
    return enabled.isBool() && enabled.toBool();
}

RadioCellText radioCellText(const RadioEntry &entry)
{
    const QString name = stringValue(entry, QStringLiteral("name")).value_or(QStringLiteral("Radio"));
    const QString address = stringValue(entry, QStringLiteral("ipAddress")).value_or(QString());
    const QString state = isEnabled(entry) ? QStringLiteral("Enabled") : QStringLiteral("Disabled");
    // The middle dot is only a visual separator; a screen reader pauses at commas instead, and
    // a missing address is skipped rather than read as an empty pause.
    QStringList spoken{name};
    if (!address.isEmpty())
        spoken << address;
    spoken << state;
    return {name, address + QStringLiteral("  \u00B7  ") + state, spoken.join(QStringLiteral(", "))};
}

const QList<DetailField> &detailFields()
{
    static const QList<DetailField> fields = {
        {QStringLiteral("model"), QStringLiteral("MODEL"), QStringLiteral("Model")},
        {QStringLiteral("ipAddress"), QStringLiteral("IP ADDRESS"), QStringLiteral("IP address")},
        {QStringLiteral("serialNumber"), QStringLiteral("SERIAL NUMBER"), QStringLiteral("Serial number")},
        {QStringLiteral("callsign"), QStringLiteral("CALLSIGN"), QStringLiteral("Callsign")},
        {QStringLiteral("version"), QStringLiteral("FIRMWARE"), QStringLiteral("Firmware")},
    };
    return fields;
}

DetailsContent detailsContent(const RadioEntries &entries, int selectedRow)
{
    const bool valid = selectedRow >= 0 && selectedRow < entries.size();
    const RadioEntry entry = valid ? entries.at(selectedRow) : RadioEntry();

    DetailsContent content;
    content.title = stringValue(entry, QStringLiteral("name"))
                        .value_or(entries.isEmpty() ? QStringLiteral("Add your first radio")
                                                    : QStringLiteral("Select a radio"));
    for (const DetailField &field : detailFields())
        content.values.insert(field.key, stringValue(entry, field.key).value_or(noValue));
    content.controlsEnabled = valid;
    content.included = isEnabled(entry);
    return content;
}

QString spokenDetail(const DetailField &field, const QString &value)
{
    return field.spoken + QStringLiteral(": ") + value;
}

int rowToSelect(int previousRow, int count)
{
    if (count <= 0)
        return -1;
    return previousRow < 0 ? 0 : std::min(count - 1, previousRow);
}
