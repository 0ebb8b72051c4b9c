#pragma once

#include <QObject>
#include <QString>

class QDeadlineTimer;
class QSocketNotifier;

// One copy of the app per user. The first copy listens on a local socket; a later
// start connects to it, asks it to come forward and leaves. Every wait is bounded. Plain Unix
// sockets rather than Qt Network, which the app does not load until its window is up.
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    enum class Claim {
        Primary,           // this is the one copy (or the socket cannot be had: run anyway)
        RaisedRunningCopy, // another copy runs and confirmed the request
        RunningCopyBusy,   // another copy listens but did not answer in time; the request waits for it
    };

    explicit SingleInstance(QString serverName = defaultServerName(), QObject *parent = nullptr);
    ~SingleInstance() override;

    // Becomes the one copy or asks the copy already running to come forward, within timeoutMs.
    // A socket left by a copy that crashed is taken over; two starts at once yield one Primary.
    Claim claim(int timeoutMs = 5000);

    // The socket's path, the same for every start of this user's, in instanceFolder(); empty
    // when there is no such folder to be trusted, and then every start runs on its own.
    static QString defaultServerName();

Q_SIGNALS:
    // Another start asked this copy to show its window.
    void activationRequested();

private:
    Claim askRunningCopy(const QDeadlineTimer &deadline) const;
    void listen();
    void acceptRequests();
    void rest();
    void answer(int connection);

    QString m_name;
    int m_listener = -1;
    QSocketNotifier *m_listening = nullptr;
    int m_requests = 0; // being served now
};
