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

qsizetype numericPrefixLength(const QList<Part> &parts)
{
    qsizetype length = 0;
    while (length < parts.size()
           && (parts.at(length).type == PartType::Number || parts.at(length).type == PartType::Period))
        ++length;
    return length;
}

// "1.0" and "1.0.0" are the same version: the shorter leading run of numbers and periods is
// filled up with periods and zeros to the length of the longer one.
void pad(QList<Part> &shorter, qsizetype shorterLength, const QList<Part> &longer, qsizetype longerLength)
{
    for (qsizetype i = shorterLength; i < longerLength; ++i) {
        const bool period = longer.at(i).type == PartType::Period;
        shorter.insert(i, {period ? QStringLiteral(".") : QStringLiteral("0"),
                           period ? PartType::Period : PartType::Number});
    }
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
} // namespace

int compareVersions(const QString &a, const QString &b)
{
    QList<Part> partsA = split(a);
    QList<Part> partsB = split(b);
    const qsizetype prefixA = numericPrefixLength(partsA);
    const qsizetype prefixB = numericPrefixLength(partsB);
    if (prefixA < prefixB)
        pad(partsA, prefixA, partsB, prefixB);
    else if (prefixB < prefixA)
        pad(partsB, prefixB, partsA, prefixA);

    const qsizetype common = qMin(partsA.size(), partsB.size());
    for (qsizetype i = 0; i < common; ++i) {
        const Part &x = partsA.at(i);
        const Part &y = partsB.at(i);
        if (x.type == y.type) {
            if (x.type == PartType::Number) {
                if (const int order = compareNumbers(x.text, y.text))
                    return order;
            } else if (x.type == PartType::String) {
                if (const int order = sign(x.text.compare(y.text)))
                    return order;
            }
            continue; // periods and separators are equal to their own kind
        }
        // A number beats everything; a string loses to everything; a period and a
        // separator stand for the same thing.
        if (x.type == PartType::Number)
            return 1;
        if (y.type == PartType::Number)
            return -1;
        if (x.type == PartType::String)
            return -1;
        if (y.type == PartType::String)
            return 1;
    }
    if (partsA.size() == partsB.size())
        return 0;
    // One side goes on: it is newer, unless what follows is a string ("1.0" > "1.0b1").
    const bool aLonger = partsA.size() > partsB.size();
    const Part &next = aLonger ? partsA.at(common) : partsB.at(common);
    const int longerOrder = next.type == PartType::String ? -1 : 1;
    return aLonger ? longerOrder : -longerOrder;
}
