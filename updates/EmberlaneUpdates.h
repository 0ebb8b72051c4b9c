#pragma once

#include "updates/UpdaterDelegate.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

class QAction;
class QMenu;
class StandardUserDriver;
struct BundleInfo;
class UpdateEngine;
class UserDriver;

// The one owner of the app's updater. It mirrors the updater's canCheckForUpdates and
// automaticallyChecksForUpdates for the menus, and as the updater's delegate it refuses
// updates, and holds back the relaunch, while blockedReason says an operation is running.
// The engine itself, with its network, archive and crypto libraries, is loaded only when it is
// needed: when the user checks or changes the automatic-checks setting, when a scheduled check
// is due, or when the second launch asks whether to check automatically. Until then the
// setting and the schedule are read from the settings store and Info.plist.
class EmberlaneUpdates : public QObject, public UpdaterDelegate
{
    Q_OBJECT
    Q_PROPERTY(bool canCheck READ canCheck NOTIFY canCheckChanged)
    Q_PROPERTY(bool automaticChecks READ automaticChecks NOTIFY automaticChecksChanged)

public:
    // Created on first use, for the running bundle, with the standard update windows.
    static EmberlaneUpdates &shared();

    // An instance for another bundle or another user driver (tests). The driver, when given,
    // must outlive this object.
    explicit EmberlaneUpdates(const QString &bundlePath = QString(), UserDriver *driver = nullptr,
                              QObject *parent = nullptr);
    ~EmberlaneUpdates() override;

    bool canCheck() const { return m_canCheck; }
    bool automaticChecks() const { return m_automaticChecks; }

    // The gate: a text means that updating must wait, and is what the user is told.
    std::function<std::optional<QString>()> blockedReason = [] { return std::optional<QString>(); };

    // Loads and starts the engine; once it runs, later calls do nothing. When it cannot load or
    // start (no library, bad update settings), this says why in the log, and the next call
    // tries again.
    void loadEngine();
    bool engineLoaded() const { return bool(controller); }
    // Loads the engine when this run needs it without being asked (called once the window is
    // on screen): at once for the second launch's question, else when a scheduled check is
    // due; never while neither is. Marks this launch in the settings store.
    void loadEngineWhenDue();
    // When loadEngineWhenDue() will load the engine; invalid when it will not.
    QDateTime engineDue() const { return m_engineDueAt; }

    // The user's commands: each loads the engine first, and says so in a window when it cannot.
    void check();
    void setAutomaticChecks(bool on);
    void toggleAutomaticChecks();
    // The stored setting: the engine's once it runs, else the same rule read from the settings
    // store and Info.plist.
    bool storedAutomaticChecks() const;

    // Appends "Check for Updates…" and "Check for Updates Automatically" to the menu.
    void addMenuItems(QMenu *menu);

    // The engine, loaded first if need be; fatal when it cannot be loaded.
    UpdateEngine &updater();

    std::optional<Error> shouldProceedWithUpdate(const AppcastItem &item, CheckKind check) override;
    bool shouldPostponeRelaunch(const AppcastItem &item, std::function<void()> install) override;
    bool shouldInstallOnQuit(const AppcastItem &item) override;

    static const QString errorDomain; // "com.emberlane.updates"

Q_SIGNALS:
    void canCheckChanged(bool canCheck);
    void automaticChecksChanged(bool on);

private:
    std::optional<Error> startEngine();
    bool engineForTheUser();
    const BundleInfo &bundleSettings() const;
    void engineDueTick();
    void observe();
    void connectMenuItems();
    void waitForTheGate();

    bool m_canCheck = false;
    bool m_automaticChecks = true;
    QString m_bundlePath;
    UserDriver *m_driver = nullptr;
    QDateTime m_engineDueAt;
    mutable std::shared_ptr<const BundleInfo> m_bundleSettings; // Info.plist of m_bundleSettingsPath
    mutable QString m_bundleSettingsPath;
    QTimer m_engineDueTimer;
    QPointer<QAction> m_checkNow;
    QPointer<QAction> m_automatic;
    std::unique_ptr<StandardUserDriver> m_standardDriver;
    std::unique_ptr<UpdateEngine> controller;
    std::function<void()> pendingInstall;
    QTimer *timer = nullptr;
};
