#include "daemon/ReadBudget.h"

bool ReadBudget::admit(qint64 nowMs, qsizetype bytes, int lines)
{
    if (nowMs - m_windowStartMs >= 1000) {
        m_windowStartMs = nowMs;
        m_bytes = 0;
        m_lines = 0;
    }
    m_bytes += bytes;
    m_lines += lines;
    return m_bytes <= m_mostBytes && m_lines <= m_mostLines;
}
