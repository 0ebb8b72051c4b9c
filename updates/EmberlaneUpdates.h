#pragma once

#include "updates/UpdaterDelegate.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QAction;
class QMenu;
class QTimer;
class StandardUserDriver;
class UpdateEngine;
class UserDriver;

// The one owner of the app's updater. It mirrors the updater's canCheckForUpdates and
// automaticallyChecksForUpdates for the menus, and as the updater's delegate it refuses
// updates, and holds back the relaunch, while blockedReason says an operation is running.
// The engine itself is loaded by loadEngine(), which the app calls once its window is on
// screen, or by the first use that needs it (a check, the automatic-checks setting).
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

    // Loads and starts the engine once; later calls do nothing. Without its library or its
    // settings the engine cannot check, and the menu item stays disabled.
    void loadEngine();
    bool engineLoaded() const { return bool(controller); }

    void check();
    void setAutomaticChecks(bool on);
    void toggleAutomaticChecks();

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
    void observe();
    void connectMenuItems();
    void waitForTheGate();

    bool m_canCheck = false;
    bool m_automaticChecks = true;
    QString m_bundlePath;
    UserDriver *m_driver = nullptr;
    bool m_engineTried = false;
    QPointer<QAction> m_checkNow;
    QPointer<QAction> m_automatic;
    std::unique_ptr<StandardUserDriver> m_standardDriver;
    std::unique_ptr<UpdateEngine> controller;
    std::function<void()> pendingInstall;
    QTimer *timer = nullptr;
};
