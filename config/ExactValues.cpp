#include "config/ExactValues.h"

#include <QSet>

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>

namespace {
// Qt's own parser refuses deeper documents, so nothing deeper can be saved anyway.
constexpr int nestingLimit = 1024;

// A decimal number's value as digits × 10^scale, digits without leading or trailing zeros (none
// for zero), so that two spellings of one value compare equal.
struct Decimal
{
    bool negative = false;
    std::string digits;
    long long scale = 0;

    bool isZero() const { return digits.empty(); }
    bool operator==(const Decimal &) const = default;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads JSON's number form, and also "e+19" as the shortest double form writes it.
Decimal decimalOf(std::string_view text)
{
    // Past this an exponent means a value no double holds, which the range check finds first.
    constexpr long long exponentCap = 1'000'000'000;
    Decimal value;
    std::size_t i = 0;
    if (i < text.size() && text[i] == '-') {
        value.negative = true;
        ++i;
    }
    long long fractionDigits = 0;
    bool inFraction = false;
    for (; i < text.size() && (isDigit(text[i]) || text[i] == '.'); ++i) {
        if (text[i] == '.') {
            inFraction = true;
            continue;
        }
        if (!(value.digits.empty() && text[i] == '0'))
            value.digits += text[i];
        if (inFraction)
            ++fractionDigits;
    }
    long long exponent = 0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool negativeExponent = false;
        if (i < text.size() && (text[i] == '+' || text[i] == '-'))
            negativeExponent = text[i++] == '-';
        for (; i < text.size() && isDigit(text[i]); ++i)
            exponent = std::min(exponentCap, exponent * 10 + (text[i] - '0'));
        if (negativeExponent)
            exponent = -exponent;
    }
    value.scale = exponent - fractionDigits;
    while (!value.digits.empty() && value.digits.back() == '0') {
        value.digits.pop_back();
        ++value.scale;
    }
    if (value.isZero())
        value.scale = 0;
    return value;
}

// Whether Qt keeps the number's value: it holds numbers as doubles, and writes back the
// shortest form of that double, so the value must survive that round.
bool isKeptExactly(std::string_view token)
{
    double number = 0;
    const auto read = std::from_chars(token.data(), token.data() + token.size(), number);
    if (read.ec != std::errc())
        return false; // beyond a double's range, either way
    const Decimal written = decimalOf(token);
    if (written.isZero())
        return !written.negative; // -0 is read as 0
    char shortest[64];
    // Scientific: the shortest digits, where fixed notation would spell out a large double whole.
    const auto made = std::to_chars(shortest, shortest + sizeof shortest, number, std::chars_format::scientific);
    return made.ec == std::errc() && decimalOf(std::string_view(shortest, made.ptr)) == written;
}

class Scanner
{
public:
    explicit Scanner(QStringView text) : m_text(text) {}

    std::optional<InexactValue> run()
    {
        skipSpace();
        if (!value(QString(), 0))
            return std::nullopt;
        skipSpace();
        return m_at == m_text.size() ? m_first : std::nullopt;
    }

private:
    QChar peek() const { return m_at < m_text.size() ? m_text[m_at] : QChar(); }
    bool take(QChar c)
    {
        if (peek() != c)
            return false;
        ++m_at;
        return true;
    }
    void skipSpace()
    {
        while (m_at < m_text.size() && (m_text[m_at] == u' ' || m_text[m_at] == u'\t' || m_text[m_at] == u'\n'
                                        || m_text[m_at] == u'\r'))
            ++m_at;
    }
    void report(InexactValue found)
    {
        if (!m_first)
            m_first = std::move(found);
    }

    bool value(const QString &key, int depth)
    {
        const QChar c = peek();
        if (c == u'{')
            return depth < nestingLimit && object(depth + 1);
        if (c == u'[')
            return depth < nestingLimit && array(key, depth + 1);
        if (c == u'"')
            return string(nullptr);
        if (c == u'-' || (c >= u'0' && c <= u'9'))
            return number(key);
        return literal(u"true") || literal(u"false") || literal(u"null");
    }

    bool literal(QStringView word)
    {
        if (!m_text.sliced(m_at).startsWith(word))
            return false;
        m_at += word.size();
        return true;
    }

    bool object(int depth)
    {
        ++m_at; // '{'
        skipSpace();
        if (take(u'}'))
            return true;
        QSet<QString> keys;
        do {
            skipSpace();
            QString key;
            if (!string(&key))
                return false;
            if (keys.contains(key))
                report({InexactValue::Kind::RepeatedKey, key, QString()});
            keys.insert(key);
            skipSpace();
            if (!take(u':'))
                return false;
            skipSpace();
            if (!value(key, depth))
                return false;
            skipSpace();
        } while (take(u','));
        return take(u'}');
    }

    bool array(const QString &key, int depth)
    {
        ++m_at; // '['
        skipSpace();
        if (take(u']'))
            return true;
        do {
            skipSpace();
            if (!value(key, depth))
                return false;
            skipSpace();
        } while (take(u','));
        return take(u']');
    }

    // Reads a string; its decoded text goes to decoded when one is given (keys). Lenient where
    // Qt's parser is (control characters, any character after a backslash), so that nothing Qt
    // reads passes unchecked.
    bool string(QString *decoded)
    {
        ++m_at; // '"'
        while (m_at < m_text.size()) {
            const QChar c = m_text[m_at++];
            if (c == u'"')
                return true;
            if (c != u'\\') {
                if (decoded)
                    decoded->append(c);
                continue;
            }
            if (m_at >= m_text.size())
                return false;
            const QChar escape = m_text[m_at++];
            constexpr std::u16string_view simple = u"\"\\/bfnrt";
            constexpr std::u16string_view meant = u"\"\\/\b\f\n\r\t";
            if (const std::size_t found = simple.find(escape.unicode()); found != simple.npos) {
                if (decoded)
                    decoded->append(QChar(meant[found]));
            } else if (escape == u'u') {
                const std::optional<char16_t> unit = hexUnit();
                if (!unit)
                    return false;
                if (decoded)
                    decoded->append(QChar(*unit));
            } else if (decoded) {
                decoded->append(escape); // as Qt reads it
            }
        }
        return false;
    }

    // The four hexadecimal digits of a \u escape.
    std::optional<char16_t> hexUnit()
    {
        if (m_at + 4 > m_text.size())
            return std::nullopt;
        char16_t unit = 0;
        for (const QChar c : m_text.sliced(m_at, 4)) {
            const char16_t h = c.unicode();
            const int digit = h >= u'0' && h <= u'9'   ? h - u'0'
                              : h >= u'a' && h <= u'f' ? h - u'a' + 10
                              : h >= u'A' && h <= u'F' ? h - u'A' + 10
                                                       : -1;
            if (digit < 0)
                return std::nullopt;
            unit = char16_t(unit * 16 + digit);
        }
        m_at += 4;
        return unit;
    }

    bool digits()
    {
        const qsizetype start = m_at;
        while (m_at < m_text.size() && m_text[m_at] >= u'0' && m_text[m_at] <= u'9')
            ++m_at;
        return m_at > start;
    }

    bool number(const QString &key)
    {
        const qsizetype start = m_at;
        // As lenient as Qt's parser, which also reads "01", "1." and "1e".
        take(u'-');
        if (!digits())
            return false;
        if (take(u'.'))
            digits();
        if (take(u'e') || take(u'E')) {
            if (!take(u'+'))
                take(u'-');
            digits();
        }
        const QStringView token = m_text.sliced(start, m_at - start);
        const std::string ascii = token.toLatin1().toStdString();
        if (!isKeptExactly(ascii))
            report({InexactValue::Kind::Number, key, token.toString()});
        return true;
    }

    QStringView m_text;
    qsizetype m_at = 0;
    std::optional<InexactValue> m_first;
};
} // namespace

std::optional<InexactValue> firstInexactValue(QStringView json)
{
    return Scanner(json).run();
}

QString inexactValueMessage(const InexactValue &value, const QString &fileName)
{
    const QString key = u'"' + value.key + u'"';
    if (value.kind == InexactValue::Kind::RepeatedKey)
        return QStringLiteral("%1 holds the key %2 twice in one object, and Veldspar would keep only the last. "
                              "Edit the file by hand, or remove one of them, and try again.")
            .arg(fileName, key);
    return QStringLiteral("%1 holds a value Veldspar cannot keep exactly (%2: %3). Edit the file by hand, "
                          "or remove the value, and try again.")
        .arg(fileName, key, value.number);
}
