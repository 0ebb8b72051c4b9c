#pragma once

// While alive, the calling thread obeys file permissions even when the tests run as root (as
// CI does): it gives up the capabilities that let root read, write and search past them.
// Restores them when it goes. Only the calling thread is affected, so use it around work
// done on the main thread.
class WithoutFilePermissionOverride
{
public:
    WithoutFilePermissionOverride();
    ~WithoutFilePermissionOverride();

    WithoutFilePermissionOverride(const WithoutFilePermissionOverride &) = delete;
    WithoutFilePermissionOverride &operator=(const WithoutFilePermissionOverride &) = delete;

    bool active() const { return m_active; }

private:
    unsigned m_savedEffective[2] = {0, 0};
    bool m_active = false;
};
