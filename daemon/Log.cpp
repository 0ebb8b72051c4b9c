#include "daemon/Log.h"

#include <cstdio>

namespace {
void writeLine(FILE *stream, const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}
} // namespace

void printLine(const QString &line) { writeLine(stdout, line); }
void logLine(const QString &line) { writeLine(stderr, line); }
