#pragma once

#include <QStringList>
#include <QTextStream>

// Runs one veldspar-release command (arguments without the program name). Returns the exit
// status: 0 done, 1 failed or refused (a bad signature, a broken feed), 2 misused.
int runReleaseTool(const QStringList &arguments, QTextStream &out, QTextStream &err);
