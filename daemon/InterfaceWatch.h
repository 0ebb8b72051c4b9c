#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <functional>

// Tells when the network interfaces may have changed: an interface came, went, went up or
// down, gained or lost its carrier, or an IPv4 address was added or removed. The kernel
// reports these over a netlink socket, so an idle service does nothing; all the news at hand
// when it wakes is reported once. Where no such socket can be had, it looks every two seconds
// instead.
class InterfaceWatch : public QObject
{
public:
    explicit InterfaceWatch(std::function<void()> changed, QObject *parent = nullptr);
    ~InterfaceWatch() override;

private:
    void drain();

    std::function<void()> m_changed;
    int m_socket = -1;
    QSocketNotifier *m_notifier = nullptr;
    QTimer m_poll;
};
