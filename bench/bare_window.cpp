// The yardstick for start-up: a bare Qt window showing one label. Prints the time from process
// creation to its first painted frame and the peak memory, then quits.

#include "Measure.h"

#include <QApplication>
#include <QLabel>
#include <QTimer>

#include <cstdio>

namespace {
class FirstFrame : public QObject
{
public:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Paint && !m_seen) {
            m_seen = true;
            QTimer::singleShot(0, [] {
                std::printf("first frame %.1f ms, peak %.1f MiB\n", millisecondsSinceProcessStart(), peakResidentMiB());
                QCoreApplication::quit();
            });
        }
        return QObject::eventFilter(watched, event);
    }

private:
    bool m_seen = false;
};
} // namespace

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
