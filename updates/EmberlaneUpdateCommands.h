#pragma once

#include <QObject>

class EmberlaneUpdates;
class QAction;

// The two update commands as actions, for a host that assembles its menus from actions:
// "Check for Updates…" enabled exactly while the updater can check, and "Check for Updates
// Automatically" checked while it checks automatically.
class EmberlaneUpdateCommands : public QObject
{
    Q_OBJECT

public:
    explicit EmberlaneUpdateCommands(QObject *parent = nullptr);
    explicit EmberlaneUpdateCommands(EmberlaneUpdates &updates, QObject *parent = nullptr);

    QAction *checkForUpdates() const { return m_check; }
    QAction *automaticChecks() const { return m_automatic; }

private:
    EmberlaneUpdates &updates;
    QAction *m_check;
    QAction *m_automatic;
};
