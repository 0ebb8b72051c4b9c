#include "platform/ShortLine.h"

qsizetype ShortLine::room() const
{
    return complete() ? 0 : m_longest - m_received.size();
}

bool ShortLine::add(const char *bytes, qsizetype size)
{
    m_received.append(bytes, qMin(size, room()));
    return complete();
}

bool ShortLine::complete() const
{
    return m_received.contains('\n') || m_received.size() >= m_longest;
}

QByteArray ShortLine::line() const
{
    const qsizetype end = m_received.indexOf('\n');
    return end < 0 ? m_received : m_received.left(end + 1);
}
