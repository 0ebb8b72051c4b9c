#include "updates/EmberlaneUpdates.h"

#include "updates/StandardUserDriver.h"
#include "updates/UpdateEngine.h"
#include "updates/UpdateEngineLoader.h"

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

EmberlaneUpdates::EmberlaneUpdates(const QString &bundlePath, UserDriver *driver, QObject *parent)
    : QObject(parent), m_bundlePath(bundlePath), m_driver(driver)
{
    if (!m_driver) {
        m_standardDriver = std::make_unique<StandardUserDriver>();
        m_driver = m_standardDriver.get();
    }
}

EmberlaneUpdates::~EmberlaneUpdates() = default;

void EmberlaneUpdates::loadEngine()
{
    if (std::exchange(m_engineTried, true))
        return;
    try {
        controller.reset(updateEngineFactory()(m_driver, this, m_bundlePath));
        controller->start();
    } catch (const Error &error) {
        // Without its library or its settings the updater cannot check; the menu item stays
        // disabled.
        qWarning("The updater cannot start: %s", qPrintable(error.localizedDescription()));
    }
    if (!controller)
        return;
    observe();
    connectMenuItems();
}

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
    connect(controller.get(), &UpdateEngine::canCheckForUpdatesChanged, this, mirrorCanCheck);
    connect(controller.get(), &UpdateEngine::automaticallyChecksForUpdatesChanged, this, mirrorAutomaticChecks);
    mirrorCanCheck();
    mirrorAutomaticChecks();
}

UpdateEngine &EmberlaneUpdates::updater()
{
    loadEngine();
    if (!controller)
        qFatal("The updater is used but could not be loaded");
    return *controller;
}

void EmberlaneUpdates::check()
{
    loadEngine();
    if (controller)
        controller->checkForUpdates();
}

void EmberlaneUpdates::setAutomaticChecks(bool on)
{
    loadEngine();
    if (controller)
        controller->setAutomaticallyChecksForUpdates(on);
}

void EmberlaneUpdates::toggleAutomaticChecks()
{
    loadEngine();
    if (controller)
        setAutomaticChecks(!controller->automaticallyChecksForUpdates());
}

void EmberlaneUpdates::addMenuItems(QMenu *menu)
{
    // Enabled exactly while the updater can check, as the updater itself validates it; until
    // the engine is loaded it cannot.
    m_checkNow = menu->addAction(QStringLiteral("Check for Updates\u2026"));
    m_checkNow->setEnabled(false);
    connect(m_checkNow, &QAction::triggered, this, &EmberlaneUpdates::check);

    m_automatic = menu->addAction(QStringLiteral("Check for Updates Automatically"));
    m_automatic->setCheckable(true);
    QAction *automatic = m_automatic;
    connect(automatic, &QAction::triggered, this, [this, automatic] {
        loadEngine();
        // The check mark follows the setting, not the click.
        automatic->setChecked(controller && controller->automaticallyChecksForUpdates());
        toggleAutomaticChecks();
    });
    connectMenuItems();
}

// The items follow the engine once both exist, whichever came first.
void EmberlaneUpdates::connectMenuItems()
{
    if (!controller)
        return;
    if (m_checkNow) {
        m_checkNow->setEnabled(controller->canCheckForUpdates());
        connect(controller.get(), &UpdateEngine::canCheckForUpdatesChanged, m_checkNow, &QAction::setEnabled,
                Qt::UniqueConnection);
    }
    if (m_automatic) {
        m_automatic->setChecked(controller->automaticallyChecksForUpdates());
        connect(controller.get(), &UpdateEngine::automaticallyChecksForUpdatesChanged, m_automatic, &QAction::setChecked,
                Qt::UniqueConnection);
    }
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
