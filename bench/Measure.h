#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QString>
#include <QTimer>

#include <cstdio>
#include <ctime>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

// Milliseconds since this process was created by the kernel (so dynamic loading counts too).
inline double millisecondsSinceProcessStart()
{
    std::ifstream stat("/proc/self/stat");
    std::string line;
    std::getline(stat, line);
    // Field 22 (starttime, in clock ticks since boot) follows the parenthesised command name.
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 22; ++i)
        fields >> field;
    const double startSeconds = std::stod(field) / double(sysconf(_SC_CLK_TCK));
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return (double(now.tv_sec) + double(now.tv_nsec) / 1e9 - startSeconds) * 1000.0;
}

inline double peakResidentMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

// Prints the time from process creation to the first painted frame and the peak memory, then
// quits. Install it on the widget (or the application) whose first paint counts.
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
