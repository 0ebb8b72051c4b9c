#pragma once

#include <QByteArray>

#include <optional>

// Cuts a byte stream into lines ending in CR, LF or CRLF, as they arrive in pieces. Between
// the CR and the LF of a CRLF there is an empty line: a flood of line ends is counted as one.
class LineFramer
{
public:
    // longest: the most bytes a line may have, its end not counted.
    explicit LineFramer(qsizetype longest) : m_longest(longest) {}

    void append(const QByteArray &bytes);

    enum class Status { Line, NeedMore, TooLong };
    struct Next
    {
        Status status = Status::NeedMore;
        QByteArray line; // without its end; set for Status::Line
    };
    // The next complete line. TooLong when the next line, complete or not, is longer than
    // allowed: the stream is broken, and nothing more comes out of it.
    Next take();

    // Bytes of the line still on its way.
    qsizetype pending() const { return m_buffer.size() - m_start; }

private:
    qsizetype m_longest;
    QByteArray m_buffer;
    qsizetype m_start = 0; // where the next line starts in m_buffer
    bool m_broken = false;
};
