#include "Commands.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    const int status = runReleaseTool(application.arguments().mid(1), out, err);
    out.flush();
    err.flush();
    return status;
}
