#include "updates/EmberlaneUpdates.h"

#include "platform/Bundle.h"
#include "updates/BundleInfo.h"
#include "updates/StandardUserDriver.h"
#include "updates/UpdateEngine.h"
#include "updates/UpdateEngineLoader.h"
#include "updates/UpdateSchedule.h"
#include "updates/UserSettings.h"

#include <QAction>
#include <QApplication>
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
    m_engineDueTimer.setSingleShot(true);
    connect(&m_engineDueTimer, &QTimer::timeout, this, &EmberlaneUpdates::engineDueTick);
    // Until the engine runs, a check can always be asked for (it loads the engine), and the
    // setting is the stored one; the mirrors take them on the next turn, as from the engine.
    QTimer::singleShot(0, this, [this] {
        if (controller)
            return;
        m_canCheck = true;
        m_automaticChecks = storedAutomaticChecks();
        Q_EMIT canCheckChanged(m_canCheck);
        Q_EMIT automaticChecksChanged(m_automaticChecks);
    });
}

EmberlaneUpdates::~EmberlaneUpdates() = default;

std::optional<Error> EmberlaneUpdates::startEngine()
{
    if (controller)
        return std::nullopt;
    std::unique_ptr<UpdateEngine> engine;
    try {
        engine.reset(updateEngineFactory()(m_driver, this, m_bundlePath));
        engine->start();
    } catch (const Error &error) {
        // An engine that could not start cannot check: it goes, and the next request tries anew.
        qWarning("The updater cannot start: %s", qPrintable(error.localizedDescription()));
        return error;
    }
    m_engineDueTimer.stop();
    m_engineDueAt = QDateTime();
    controller = std::move(engine);
    observe();
    connectMenuItems();
    return std::nullopt;
}

void EmberlaneUpdates::loadEngine()
{
    startEngine();
}

// What the user asked for needs the engine: without it, the user is told why nothing happens.
bool EmberlaneUpdates::engineForTheUser()
{
    const std::optional<Error> failure = startEngine();
    if (!failure)
        return true;
    auto *box = new QMessageBox(QMessageBox::Warning, QString(), QStringLiteral("Veldspar cannot check for updates."),
                                QMessageBox::Ok, QApplication::activeWindow());
    box->setObjectName(QStringLiteral("updateUnavailable"));
    box->setInformativeText(failure->localizedDescription());
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
    return false;
}

// Read once for each bundle: the check mark, its mirror and the start-up's schedule all ask
// before the engine exists, and Info.plist changes only with the bundle, which an update
// relaunches. Without a readable Info.plist its settings count as absent; the engine, when
// asked for, says what is wrong with it.
const BundleInfo &EmberlaneUpdates::bundleSettings() const
{
    const QString path = m_bundlePath.isEmpty() ? bundleLocation() : m_bundlePath;
    if (m_bundleSettings && m_bundleSettingsPath == path)
        return *m_bundleSettings;
    BundleInfo settings;
    try {
        settings = readBundleInfo(path);
    } catch (const Error &) {
    }
    m_bundleSettings = std::make_shared<const BundleInfo>(std::move(settings));
    m_bundleSettingsPath = path;
    return *m_bundleSettings;
}

bool EmberlaneUpdates::storedAutomaticChecks() const
{
    if (controller)
        return controller->automaticallyChecksForUpdates();
    return automaticChecksInForce(bundleSettings());
}

void EmberlaneUpdates::loadEngineWhenDue()
{
    const bool launchedBefore = UpdateUserSettings::launchedBeforeThisRun();
    if (controller)
        return;
    m_engineDueAt = engineNeededAt(bundleSettings(), launchedBefore, QDateTime::currentDateTimeUtc());
    if (m_engineDueAt.isValid())
        m_engineDueTimer.start(timerStepUntil(m_engineDueAt, QDateTime::currentDateTimeUtc()));
}

// A wait longer than one timer step goes on; once due, the engine loads and schedules itself.
void EmberlaneUpdates::engineDueTick()
{
    if (controller || !m_engineDueAt.isValid())
        return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (now < m_engineDueAt) {
        m_engineDueTimer.start(timerStepUntil(m_engineDueAt, now));
        return;
    }
    m_engineDueAt = QDateTime();
    loadEngine();
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
    if (engineForTheUser())
        controller->checkForUpdates();
}

void EmberlaneUpdates::setAutomaticChecks(bool on)
{
    if (engineForTheUser())
        controller->setAutomaticallyChecksForUpdates(on);
    else
        Q_EMIT automaticChecksChanged(m_automaticChecks); // a toggle that was clicked goes back
}

void EmberlaneUpdates::toggleAutomaticChecks()
{
    if (engineForTheUser())
        controller->setAutomaticallyChecksForUpdates(!controller->automaticallyChecksForUpdates());
}

void EmberlaneUpdates::addMenuItems(QMenu *menu)
{
    // Choosing it loads the engine if need be; once the engine runs, the item is enabled exactly
    // while the updater can check, as the updater itself validates it.
    m_checkNow = menu->addAction(QStringLiteral("Check for Updates\u2026"));
    connect(m_checkNow, &QAction::triggered, this, &EmberlaneUpdates::check);

    m_automatic = menu->addAction(QStringLiteral("Check for Updates Automatically"));
    m_automatic->setCheckable(true);
    m_automatic->setChecked(storedAutomaticChecks());
    QAction *automatic = m_automatic;
    connect(automatic, &QAction::triggered, this, [this, automatic] {
        // The check mark follows the setting, not the click.
        automatic->setChecked(storedAutomaticChecks());
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
