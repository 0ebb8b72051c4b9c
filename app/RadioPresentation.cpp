#include "app/RadioPresentation.h"

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
    return {
        stringValue(entry, QStringLiteral("name")).value_or(QStringLiteral("Radio")),
        stringValue(entry, QStringLiteral("ipAddress")).value_or(QString()) + QStringLiteral("  \u00B7  ")
            + (isEnabled(entry) ? QStringLiteral("Enabled") : QStringLiteral("Disabled")),
    };
}

const QList<DetailField> &detailFields()
{
    static const QList<DetailField> fields = {
        {QStringLiteral("model"), QStringLiteral("MODEL")},
        {QStringLiteral("ipAddress"), QStringLiteral("IP ADDRESS")},
        {QStringLiteral("serialNumber"), QStringLiteral("SERIAL NUMBER")},
        {QStringLiteral("callsign"), QStringLiteral("CALLSIGN")},
        {QStringLiteral("version"), QStringLiteral("FIRMWARE")},
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

int rowToSelect(int previousRow, int count)
{
    if (count <= 0)
        return -1;
    return previousRow < 0 ? 0 : std::min(count - 1, previousRow);
}
