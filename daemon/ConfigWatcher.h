#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

// Tells when the file at a path may have changed: written in place, replaced by a rename,
// created or deleted. Watches the file and its folder (so a replacement is seen at once);
// while the folder does not exist it looks for it twice a second. Bursts of changes are
// reported once, shortly after they start.
class ConfigWatcher : public QObject
{
public:
    ConfigWatcher(const QString &path, std::function<void()> changed, QObject *parent = nullptr);

private:
    void arm();
    void noticed();

    QString m_path;
    QString m_folder;
    std::function<void()> m_changed;
    QFileSystemWatcher m_watcher;
    QTimer m_settle;
    QTimer m_lookForFolder;
};
