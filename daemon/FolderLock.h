#pragma once

#include <QString>

// Holds an exclusive lock on a folder (flock on the folder itself: nothing is left behind, and
// a folder that cannot be written to can still be locked) for as long as it lives. Waits at
// most waitMs for another holder to let go, then throws Failure. The system lets go of it
// when the process dies, however it dies.
class FolderLock
{
public:
    FolderLock(const QString &folder, int waitMs);
    ~FolderLock();
    FolderLock(const FolderLock &) = delete;
    FolderLock &operator=(const FolderLock &) = delete;

private:
    int m_fd = -1;
};
