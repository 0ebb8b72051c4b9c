#pragma once

#include "daemon/LiveState.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>

// Where the service publishes its live state: $XDG_RUNTIME_DIR/Veldspar/state.json when the
// session's runtime folder is there and private to this user, else state.json beside the
// configuration.
QString stateFilePath(const QString &configPath);

// The state file, kept current: changed() asks for a new version, which is written on a later
// turn of the event loop and at most once a second, and only when what a reader would show
// differs from the version on disk. Each version replaces the last by a rename, so a reader
// never sees half a file; the file is readable by this user only. Removed when the service
// stops, so that a file that remains belongs to a service that did not stop cleanly.
class StateFile : public QObject
{
public:
    StateFile(const QString &path, std::function<QList<RadioLiveState>()> collect, QObject *parent = nullptr);
    ~StateFile() override;

    void changed();
    QString path() const { return m_path; }

private:
    void write();
    bool differsFromWritten(const QList<RadioLiveState> &radios) const;

    QString m_path;
    std::function<QList<RadioLiveState>()> m_collect;
    QTimer m_timer;
    QElapsedTimer m_lastWrite;
    QList<RadioLiveState> m_written;
    bool m_everWritten = false;
    QString m_lastProblem;
};
