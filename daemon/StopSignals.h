#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <functional>

// Turns SIGTERM (systemd stopping the service) and SIGINT (Ctrl+C) into a call on the main
// thread, where it is safe to log and quit: the handler only writes a byte to a socket pair.
class StopSignals : public QObject
{
public:
    explicit StopSignals(std::function<void(int signal)> stop, QObject *parent = nullptr);
    ~StopSignals() override;

private:
    std::function<void(int)> m_stop;
    QSocketNotifier *m_notifier = nullptr;
};
