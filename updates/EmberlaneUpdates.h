#pragma once

#include "updates/UpdaterDelegate.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QMenu;
class QTimer;
class StandardUserDriver;
class Updater;
class UserDriver;

// The one owner of the app's updater. It mirrors the updater's canCheckForUpdates and
// automaticallyChecksForUpdates for the menus, and as the updater's delegate it refuses
// updates, and holds back the relaunch, while blockedReason says an operation is running.
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

    void check();
    void setAutomaticChecks(bool on);
    void toggleAutomaticChecks();

    // Appends "Check for Updates…" and "Check for Updates Automatically" to the menu.
    void addMenuItems(QMenu *menu);

    Updater &updater() const;

    std::optional<Error> shouldProceedWithUpdate(const AppcastItem &item, CheckKind check) override;
    bool shouldPostponeRelaunch(const AppcastItem &item, std::function<void()> install) override;
    bool shouldInstallOnQuit(const AppcastItem &item) override;

    static const QString errorDomain; // "com.emberlane.updates"

Q_SIGNALS:
    void canCheckChanged(bool canCheck);
    void automaticChecksChanged(bool on);

private:
    void observe();
    void waitForTheGate();

    bool m_canCheck = false;
    bool m_automaticChecks = true;
    std::unique_ptr<StandardUserDriver> m_standardDriver;
    std::unique_ptr<Updater> controller;
    std::function<void()> pendingInstall;
    QTimer *timer = nullptr;
};
