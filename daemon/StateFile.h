#pragma once

#include "daemon/LiveState.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <sys/types.h>

// Which file a path named when it was last looked at: a replaced or re-created file is another.
struct FileIdentity
{
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity &) const = default;
};

// Where the service publishes its live state: $XDG_RUNTIME_DIR/Veldspar/state.json when the
// session's runtime folder is there and private to this user, else state.json beside the
// configuration.
QString stateFilePath(const QString &configPath);

// The state file, kept current: changed() asks for a new version, which is written on a later
// turn of the event loop and at most once a second, and only when what a reader would show
// differs from the version on disk. Each version replaces the last by a rename, so a reader
// never sees half a file; the file is readable by this user only. A write that fails (a full
// disk, a folder that cannot be written) is tried again, at growing pauses, until it lands; a
// file (or folder) that someone removed is written again within a few seconds. Removed when
// the service stops, if it is still the one this service wrote, so that a file that remains
// belongs to a service that did not stop cleanly.
class StateFile : public QObject
{
public:
    StateFile(const QString &path, std::function<QList<RadioLiveState>()> collect, QObject *parent = nullptr);
    ~StateFile() override;

    void changed();
    QString path() const { return m_path; }

private:
    void write();
    void failed(const QString &problem);
    void lookForFile();
    bool differsFromWritten(const QList<RadioLiveState> &radios) const;

    QString m_path;
    std::function<QList<RadioLiveState>()> m_collect;
    QTimer m_timer;
    QTimer m_presenceTimer;
    QElapsedTimer m_lastWrite;
    QList<RadioLiveState> m_written;
    bool m_everWritten = false;
    bool m_stale = false; // the file on disk is not m_written (a write failed, or it is gone)
    FileIdentity m_identity; // of the file last written
    int m_retryMs;
    QString m_lastProblem;
};
