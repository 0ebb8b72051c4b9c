#pragma once

#include <QString>

// One service per configuration: a lock on "<configuration>.lock" beside the configuration,
// held for as long as this object lives. The system lets go of it when the process ends,
// however it ends, so a lock file left behind means nothing. Imports into the same folder take
// a lock of their own (FolderLock) and are not held up by this one.
class ServiceLock
{
public:
    enum class Outcome { Held, HeldElsewhere, Unavailable };

    explicit ServiceLock(const QString &configPath);
    ~ServiceLock();
    ServiceLock(const ServiceLock &) = delete;
    ServiceLock &operator=(const ServiceLock &) = delete;

    Outcome outcome() const { return m_outcome; }
    // HeldElsewhere: the process that holds it, or 0 when the system does not say (another
    // PID namespace).
    qint64 holder() const { return m_holder; }
    // HeldElsewhere or Unavailable: one line for the log.
    QString message() const { return m_message; }

private:
    int m_fd = -1;
    Outcome m_outcome = Outcome::Unavailable;
    qint64 m_holder = 0;
    QString m_message;
};

// Where the lock of the configuration at configPath lives.
QString serviceLockPath(const QString &configPath);
