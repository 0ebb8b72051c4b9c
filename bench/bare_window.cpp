// The yardstick for start-up: a bare Qt window showing one label. Prints the time from process
// creation to its first painted frame and the peak memory, then quits.

#include "Measure.h"

#include <QApplication>
#include <QLabel>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QLabel label(QStringLiteral("Radios"));
    label.resize(960, 620);
    FirstFrame watcher;
    label.installEventFilter(&watcher);
    label.show();
    return QApplication::exec();
}
