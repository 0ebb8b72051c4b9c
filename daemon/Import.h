#pragma once

#include <QString>

// "--config PATH --import FILE": checks FILE, backs up the configuration at PATH and puts
// FILE's exact bytes in its place. Prints at most one line. Returns the exit status: 0 when
// PATH now holds FILE, otherwise 1 with PATH untouched.
int runImport(const QString &configPath, const QString &file);
