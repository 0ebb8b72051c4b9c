#include "daemon/ConfigWatcher.h"

#include <QFileInfo>

namespace {
// Long enough to let a writer finish a burst, short enough to keep the one-second promise.
constexpr int settleMs = 100;
constexpr int folderLookMs = 500;
} // namespace

ConfigWatcher::ConfigWatcher(const QString &path, std::function<void()> changed, QObject *parent)
    : QObject(parent), m_path(QFileInfo(path).absoluteFilePath()), m_folder(QFileInfo(path).absolutePath()),
      m_changed(std::move(changed))
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(settleMs);
    connect(&m_settle, &QTimer::timeout, this, [this] {
        arm();
        m_changed();
    });
    m_lookForFolder.setInterval(folderLookMs);
    connect(&m_lookForFolder, &QTimer::timeout, this, [this] {
        if (QFileInfo(m_folder).isDir())
            noticed();
    });
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, &ConfigWatcher::noticed);
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, &ConfigWatcher::noticed);
    arm();
}

void ConfigWatcher::arm()
{
    // A file replaced by a rename is a new file: its watch must be set again.
    if (!m_watcher.files().contains(m_path) && QFileInfo::exists(m_path))
        m_watcher.addPath(m_path);
    if (!m_watcher.directories().contains(m_folder) && QFileInfo(m_folder).isDir())
        m_watcher.addPath(m_folder);
    if (m_watcher.directories().contains(m_folder))
        m_lookForFolder.stop();
    else if (!m_lookForFolder.isActive())
        m_lookForFolder.start();
}

void ConfigWatcher::noticed()
{
    // Not restarted by later events, so a steady stream of changes cannot delay the reload.
    if (!m_settle.isActive())
        m_settle.start();
}
