#pragma once

#include <QtGlobal>

// How much a peer may send in one second, counted in windows of a second from the first read.
class ReadBudget
{
public:
    ReadBudget(qsizetype mostBytes, int mostLines) : m_mostBytes(mostBytes), m_mostLines(mostLines) {}

    // Counts what was read at nowMs (a steady clock, never going back) and says whether the
    // current second stays within the budget.
    bool admit(qint64 nowMs, qsizetype bytes, int lines);

private:
    qsizetype m_mostBytes;
    int m_mostLines;
    qint64 m_windowStartMs = 0;
    qsizetype m_bytes = 0;
    int m_lines = 0;
};
