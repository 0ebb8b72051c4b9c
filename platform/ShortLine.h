#pragma once

#include <QByteArray>

// One short line read as it arrives in pieces, as the copies of the app speak to each other:
// at most `longest` bytes are taken, and the line is complete once its end came or no more
// fits.
class ShortLine
{
public:
    explicit ShortLine(qsizetype longest) : m_longest(longest) {}

    // How many more bytes may be read; 0 once the line is complete.
    qsizetype room() const;
    // Adds bytes received, at most room() of them; true once the line is complete.
    bool add(const char *bytes, qsizetype size);
    bool complete() const;
    // The line up to and with its end; all that came when no end came.
    QByteArray line() const;

private:
    qsizetype m_longest;
    QByteArray m_received;
};
