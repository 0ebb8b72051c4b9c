#pragma once

#include <QObject>
#include <QString>

class UpdaterDelegate;
class UserDriver;

// What the app's updater shell sees of the update engine. The engine (feed, download,
// signatures, archives, installation) lives in a library of its own that the shell loads only
// when a check is due or asked for, so that its network, archive and crypto libraries weigh
// neither on the start nor on the idle app.
class UpdateEngine : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)

public:
    using QObject::QObject;

    // Reads the bundle's settings and schedules the checks; throws Error when they are missing
    // or invalid, and the engine then stays unable to check.
    virtual void start() = 0;
    virtual bool canCheckForUpdates() const = 0;
    virtual bool sessionInProgress() const = 0;
    virtual bool automaticallyChecksForUpdates() const = 0;
    virtual void setAutomaticallyChecksForUpdates(bool on) = 0;
    // A user-initiated check ("Check for Updates…").
    virtual void checkForUpdates() = 0;
    // Installs a waiting update without relaunching; the engine calls it itself at quit.
    virtual void installUpdateOnQuit() = 0;

Q_SIGNALS:
    void canCheckForUpdatesChanged(bool canCheck);
    void automaticallyChecksForUpdatesChanged(bool on);
    void sessionFinished();
};

// Makes an engine for the bundle (the running one when empty) that talks to the user through
// the driver and asks the delegate; both must outlive it.
using UpdateEngineFactory = UpdateEngine *(*)(UserDriver *driver, UpdaterDelegate *delegate, const QString &bundlePath);

// The engine library's one entry point, looked up by this name.
#define VELDSPAR_UPDATE_ENGINE_ENTRY "veldsparCreateUpdateEngine"
