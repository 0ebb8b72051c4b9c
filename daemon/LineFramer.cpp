#include "daemon/LineFramer.h"

namespace {
qsizetype lineEnd(const QByteArray &buffer, qsizetype from)
{
    for (qsizetype i = from; i < buffer.size(); ++i)
        if (buffer.at(i) == '\n' || buffer.at(i) == '\r')
            return i;
    return -1;
}
} // namespace

void LineFramer::append(const QByteArray &bytes)
{
    if (m_broken)
        return;
    // What was taken goes only now, so that taking many lines moves the rest once.
    m_buffer.remove(0, m_start);
    m_start = 0;
    m_buffer += bytes;
}

LineFramer::Next LineFramer::take()
{
    if (m_broken)
        return {Status::TooLong, {}};
    const qsizetype end = lineEnd(m_buffer, m_start);
    const qsizetype length = (end < 0 ? m_buffer.size() : end) - m_start;
    if (length > m_longest) {
        m_broken = true;
        m_buffer.clear();
        m_start = 0;
        return {Status::TooLong, {}};
    }
    if (end < 0)
        return {Status::NeedMore, {}};
    Next next{Status::Line, m_buffer.mid(m_start, length)};
    m_start = end + 1;
    return next;
}
