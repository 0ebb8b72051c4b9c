#pragma once

#include <QString>

// The system programs the app runs, at their fixed places. Tests point them at stand-ins.
QString pkexecProgram(); // /usr/bin/pkexec
QString bashProgram();   // /bin/bash

void setPkexecProgramForTesting(const QString &path);
