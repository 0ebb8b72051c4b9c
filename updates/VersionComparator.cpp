#include "updates/VersionComparator.h"

#include <QList>

namespace {
enum class PartType { Number, Period, Separator, String };

struct Part
{
    QString text;
    PartType type;
};

PartType typeOf(QChar c)
{
    if (c == u'.')
        return PartType::Period;
    if (c.isDigit())
        return PartType::Number;
    if (c.isSpace() || c.isPunct())
        return PartType::Separator;
    return PartType::String;
}

// Runs of one type form a part; every separator is a part of its own.
QList<Part> split(const QString &version)
{
    QList<Part> parts;
    for (qsizetype i = 0; i < version.size(); ++i) {
        const QChar c = version.at(i);
        if (i > 0 && c == u'-')
            break;
        const PartType type = typeOf(c);
        if (!parts.isEmpty() && parts.last().type == type && type != PartType::Separator)
            parts.last().text += c;
        else
            parts.append({QString(c), type});
    }
    return parts;
}

// Numbers of any length, compared without converting them to a machine integer.
int compareNumbers(const QString &a, const QString &b)
{
    auto normalized = [](const QString &digits) {
        QString ascii;
        for (const QChar c : digits)
            ascii += QChar(u'0' + c.digitValue());
        qsizetype firstSignificant = 0;
        while (firstSignificant < ascii.size() && ascii.at(firstSignificant) == u'0')
            ++firstSignificant;
        return ascii.mid(firstSignificant);
    };
    const QString x = normalized(a);
    const QString y = normalized(b);
    if (x.size() != y.size())
        return x.size() < y.size() ? -1 : 1;
    return x.compare(y);
}

int sign(int value)
{
    return (value > 0) - (value < 0);
}

// A version as it is compared: the numbers of its leading run of numbers and periods, then
// the parts that follow. Each text has exactly one, so the order is a total one.
struct Version
{
    QStringList numbers; // no trailing zeros: "1.0" and "1.0.0" are the same version
    QList<Part> rest;
};

Version parse(const QString &text)
{
    const QList<Part> parts = split(text);
    Version version;
    qsizetype i = 0;
    bool placeFilled = false;
    for (; i < parts.size(); ++i) {
        const Part &part = parts.at(i);
        if (part.type == PartType::Number) {
            version.numbers.append(part.text);
            placeFilled = true;
        } else if (part.type == PartType::Period) {
            if (!placeFilled) // ".5" and "1..2": an empty place counts as a zero
                version.numbers.append(QStringLiteral("0"));
            placeFilled = false;
        } else {
            break;
        }
    }
    while (!version.numbers.isEmpty() && compareNumbers(version.numbers.last(), QString()) == 0)
        version.numbers.removeLast();
    version.rest = parts.mid(i);
    return version;
}

// Missing places are zeros.
int compareNumberLists(const QStringList &a, const QStringList &b)
{
    for (qsizetype i = 0; i < qMax(a.size(), b.size()); ++i)
        if (const int order = compareNumbers(a.value(i), b.value(i)))
            return order;
    return 0;
}

// A string ("b1", a pre-release) sorts before the end of a version, a period or a separator
// (the two stand for the same thing) after it, and a number after everything.
enum class Rank { String, End, Separator, Number };

Rank rankOf(const QList<Part> &parts, qsizetype i)
{
    if (i >= parts.size())
        return Rank::End;
    switch (parts.at(i).type) {
    case PartType::String:
        return Rank::String;
    case PartType::Number:
        return Rank::Number;
    case PartType::Period:
    case PartType::Separator:
        break;
    }
    return Rank::Separator;
}

// Part by part, as words are ordered in a dictionary.
int compareRests(const QList<Part> &a, const QList<Part> &b)
{
    for (qsizetype i = 0; i < qMax(a.size(), b.size()); ++i) {
        const Rank x = rankOf(a, i);
        const Rank y = rankOf(b, i);
        if (x != y)
            return x < y ? -1 : 1;
        if (x == Rank::Number) {
            if (const int order = compareNumbers(a.at(i).text, b.at(i).text))
                return order;
        } else if (x == Rank::String) {
            if (const int order = sign(a.at(i).text.compare(b.at(i).text)))
                return order;
        }
    }
    return 0;
}
} // namespace

int compareVersions(const QString &a, const QString &b)
{
    const Version x = parse(a);
    const Version y = parse(b);
    if (const int order = compareNumberLists(x.numbers, y.numbers))
        return order;
    return compareRests(x.rest, y.rest);
}
