#pragma once

#include <QString>

// The system programs the app runs, at their fixed places. Tests point them at stand-ins.
QString systemctlProgram(); // /usr/bin/systemctl
QString pkexecProgram();    // /usr/bin/pkexec
QString bashProgram();      // /bin/bash

void setSystemctlProgramForTesting(const QString &path);
void setPkexecProgramForTesting(const QString &path);
