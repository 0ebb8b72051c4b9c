#include "updates/EmberlaneUpdates.h"

#include "updates/StandardUserDriver.h"
#include "updates/Updater.h"

#include <QAction>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QTimer>

const QString EmberlaneUpdates::errorDomain = QStringLiteral("com.emberlane.updates");

EmberlaneUpdates &EmberlaneUpdates::shared()
{
    // Lives as long as the process: the updater installs a waiting update when the app quits.
    static EmberlaneUpdates *instance = new EmberlaneUpdates;
    return *instance;
}

EmberlaneUpdates::EmberlaneUpdates(const QString &bundlePath, UserDriver *driver, QObject *parent) : QObject(parent)
{
    if (!driver) {
        m_standardDriver = std::make_unique<StandardUserDriver>();
        driver = m_standardDriver.get();
    }
    controller = std::make_unique<Updater>(driver, this, nullptr, bundlePath);
    try {
        controller->start();
    } catch (const Error &error) {
        // Without its settings the updater cannot check; the menu item stays disabled.
        qWarning("The updater cannot start: %s", qPrintable(error.localizedDescription()));
    }
    observe();
}

EmberlaneUpdates::~EmberlaneUpdates() = default;

// The mirrors take the updater's current values on the next turn of the event loop, now and
// after every change, as observers of the updater do.
void EmberlaneUpdates::observe()
{
    const auto mirrorCanCheck = [this] {
        QTimer::singleShot(0, this, [this] {
            m_canCheck = controller->canCheckForUpdates();
            Q_EMIT canCheckChanged(m_canCheck);
        });
    };
    const auto mirrorAutomaticChecks = [this] {
        QTimer::singleShot(0, this, [this] {
            m_automaticChecks = controller->automaticallyChecksForUpdates();
            Q_EMIT automaticChecksChanged(m_automaticChecks);
        });
    };
    connect(controller.get(), &Updater::canCheckForUpdatesChanged, this, mirrorCanCheck);
    connect(controller.get(), &Updater::automaticallyChecksForUpdatesChanged, this, mirrorAutomaticChecks);
    mirrorCanCheck();
    mirrorAutomaticChecks();
}

Updater &EmberlaneUpdates::updater() const
{
    if (!controller)
        qFatal("The updater is used before it exists");
    return *controller;
}

void EmberlaneUpdates::check()
{
    updater().checkForUpdates();
}

void EmberlaneUpdates::setAutomaticChecks(bool on)
{
    updater().setAutomaticallyChecksForUpdates(on);
}

void EmberlaneUpdates::toggleAutomaticChecks()
{
    setAutomaticChecks(!updater().automaticallyChecksForUpdates());
}

void EmberlaneUpdates::addMenuItems(QMenu *menu)
{
    // Enabled exactly while the updater can check, as the updater itself validates it.
    QAction *checkNow = menu->addAction(QStringLiteral("Check for Updates\u2026"));
    checkNow->setEnabled(updater().canCheckForUpdates());
    connect(checkNow, &QAction::triggered, this, &EmberlaneUpdates::check);
    connect(controller.get(), &Updater::canCheckForUpdatesChanged, checkNow, &QAction::setEnabled);

    QAction *automatic = menu->addAction(QStringLiteral("Check for Updates Automatically"));
    automatic->setCheckable(true);
    connect(automatic, &QAction::triggered, this, [this, automatic] {
        // The check mark follows the setting, not the click.
        automatic->setChecked(updater().automaticallyChecksForUpdates());
        toggleAutomaticChecks();
    });
    connect(controller.get(), &Updater::automaticallyChecksForUpdatesChanged, automatic, &QAction::setChecked);
    automatic->setChecked(updater().automaticallyChecksForUpdates());
}

std::optional<Error> EmberlaneUpdates::shouldProceedWithUpdate(const AppcastItem &, CheckKind)
{
    const std::optional<QString> reason = blockedReason();
    if (!reason)
        return std::nullopt;
    return Error(errorDomain, 1, {{Error::descriptionKey, *reason}});
}

bool EmberlaneUpdates::shouldPostponeRelaunch(const AppcastItem &, std::function<void()> install)
{
    const std::optional<QString> reason = blockedReason();
    if (!reason)
        return false;
    pendingInstall = std::move(install);
    waitForTheGate();

    QTimer::singleShot(0, this, [reason] {
        QMessageBox waiting(QMessageBox::Information, QString(), QStringLiteral("Update waiting"), QMessageBox::Ok);
        waiting.setObjectName(QStringLiteral("updateWaiting"));
        waiting.setInformativeText(*reason + QStringLiteral(" The update will continue when it is safe to restart."));
        waiting.exec();
    });
    return true;
}

// Quitting in the middle of an operation does not make it safe to replace the app.
bool EmberlaneUpdates::shouldInstallOnQuit(const AppcastItem &)
{
    return !blockedReason();
}

// Polls the gate every second, however long it stays shut, and lets the installation go on
// at the first tick that finds it open.
void EmberlaneUpdates::waitForTheGate()
{
    delete timer;
    timer = new QTimer(this);
    timer->setInterval(1000);
    connect(timer, &QTimer::timeout, this, [this] {
        if (blockedReason())
            return;
        timer->deleteLater();
        timer = nullptr;
        std::function<void()> install = std::exchange(pendingInstall, nullptr);
        if (install)
            install();
    });
    timer->start();
}
