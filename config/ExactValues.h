#pragma once

#include <QString>
#include <QStringView>

#include <optional>

// A value in a JSON text that Qt's JSON classes would change when the document is read and
// written again: a number whose value a double does not hold (an integer past 2^53, 1e400, a
// fraction written with more digits than a double keeps), a negative zero, or a key that an
// object holds twice (only the last would be kept).
struct InexactValue
{
    enum class Kind { Number, RepeatedKey };
    Kind kind = Kind::Number;
    QString key;    // the key the value sits under (the innermost one for array items); the repeated key
    QString number; // the number as written; empty for a repeated key
};

// The first such value in document order, or nothing when there is none or when the text is
// not valid JSON (its parser reports that).
std::optional<InexactValue> firstInexactValue(QStringView json);

// What the user is told when a save (of config.json) or an import (of the named file) is
// refused for the value.
QString inexactValueMessage(const InexactValue &value, const QString &fileName = QStringLiteral("config.json"));
