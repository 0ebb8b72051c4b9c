#pragma once

#include <QByteArray>

#include <cstdio>

// One line on standard output, flushed at once: tests read it while the simulator runs.
inline void report(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}
