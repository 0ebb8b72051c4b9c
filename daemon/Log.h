#pragma once

#include <QString>

// One line on standard output, written at once (the app reads both streams as one, so
// nothing may linger in a buffer and come out of order).
void printLine(const QString &line);
// One line on standard error: a diagnostic, or one event of the service (systemd's journal
// adds the time).
void logLine(const QString &line);
