#include "updates/Updater.h"

#include "platform/Bundle.h"
#include "updates/BundleSwap.h"
#include "updates/UpdateSchedule.h"
#include "updates/UpdateSession.h"
#include "updates/UserDriver.h"
#include "updates/UserSettings.h"

#include <QCoreApplication>

Updater::Updater(UserDriver *driver, UpdaterDelegate *delegate, QObject *parent, const QString &bundlePath)
    : UpdateEngine(parent), m_driver(driver), m_delegate(delegate), m_bundlePath(bundlePath)
{
    Q_ASSERT(driver);
    m_scheduleTimer.setSingleShot(true);
    connect(&m_scheduleTimer, &QTimer::timeout, this, &Updater::scheduledCheckDue);
    if (QCoreApplication *application = QCoreApplication::instance())
        connect(application, &QCoreApplication::aboutToQuit, this, &Updater::installUpdateOnQuit);
}

Updater::~Updater()
{
    if (m_session)
        m_session->deleteFetchesNow = true;
    m_session.reset();
}

void Updater::start()
{
    if (m_started)
        return;
    const QString bundle = m_bundlePath.isEmpty() ? bundleLocation() : m_bundlePath;
    removeAbandonedStagingFolders(bundle);
    const bool automaticBefore = automaticallyChecksForUpdates();
    const BundleInfo host = readBundleInfo(bundle);
    m_configuration = updaterConfiguration(host);
    m_host = host;
    m_started = true;
    refreshCanCheck();
    if (automaticallyChecksForUpdates() != automaticBefore)
        Q_EMIT automaticallyChecksForUpdatesChanged(automaticallyChecksForUpdates());
    askPermissionIfNeeded();
    reschedule();
}

bool Updater::canCheckForUpdates() const
{
    if (!m_started)
        return false;
    if (!m_session)
        return true;
    switch (m_session->stage) {
    case UpdateSession::Stage::Offered:
    case UpdateSession::Stage::ReadyToInstall:
    case UpdateSession::Stage::Postponed:
        return true; // waiting for the user or the delegate, nothing running
    default:
        return false;
    }
}

void Updater::refreshCanCheck()
{
    const bool now = canCheckForUpdates();
    if (now == m_canCheck)
        return;
    m_canCheck = now;
    Q_EMIT canCheckForUpdatesChanged(now);
}

bool Updater::automaticallyChecksForUpdates() const
{
    return automaticChecksInForce(m_host);
}

void Updater::setAutomaticallyChecksForUpdates(bool on)
{
    const bool before = automaticallyChecksForUpdates();
    UpdateUserSettings::setAutomaticChecks(on);
    if (before != on)
        Q_EMIT automaticallyChecksForUpdatesChanged(on);
    reschedule();
}

qint64 Updater::updateCheckInterval() const
{
    return checkIntervalInForce(m_host);
}

void Updater::setUpdateCheckInterval(qint64 seconds)
{
    UpdateUserSettings::setCheckInterval(seconds);
    reschedule();
}

QDateTime Updater::lastUpdateCheckDate() const
{
    return UpdateUserSettings::lastCheckTime();
}

QString Updater::skippedVersion() const
{
    return UpdateUserSettings::skippedVersion();
}

// The second launch asks once, unless Info.plist or the user already decided. Whether this run
// is a later launch was settled when the run began, so that an engine loaded late in the first
// run does not take the launch the app marked for a second one.
void Updater::askPermissionIfNeeded()
{
    if (!permissionQuestionDue(m_host, UpdateUserSettings::launchedBeforeThisRun()))
        return;
    QPointer<Updater> self(this);
    auto used = std::make_shared<bool>(false);
    auto reply = [self, used](bool automaticChecks) {
        if (*used || !self)
            return;
        *used = true;
        QMetaObject::invokeMethod(
            self.data(),
            [self, automaticChecks] {
                if (self && !UpdateUserSettings::automaticChecks())
                    self->setAutomaticallyChecksForUpdates(automaticChecks);
            },
            Qt::QueuedConnection);
    };
    // After start() has returned, so that the question comes once the app is up.
    QMetaObject::invokeMethod(
        this, [this, reply] { m_driver->showUpdatePermissionRequest(reply); }, Qt::QueuedConnection);
}

void Updater::reschedule()
{
    m_scheduleTimer.stop();
    m_nextCheck = QDateTime();
    if (!m_started)
        return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    m_nextCheck = ::nextScheduledCheck(m_host, now);
    if (m_nextCheck.isValid())
        m_scheduleTimer.start(timerStepUntil(m_nextCheck, now));
}

void Updater::scheduledCheckDue()
{
    if (m_nextCheck.isValid() && QDateTime::currentDateTimeUtc() < m_nextCheck) {
        reschedule(); // a wait longer than one timer step
        return;
    }
    if (m_session)
        return; // the session's end schedules again
    checkForUpdatesInBackground();
}

void Updater::endSession(std::optional<Error> error)
{
    m_lastError = std::move(error);
    const std::unique_ptr<UpdateSession> ended = std::move(m_session);
    refreshCanCheck();
    reschedule();
    Q_EMIT sessionFinished();
}

void Updater::fail(const Error &error)
{
    const bool show = m_session && (m_session->kind == CheckKind::UserInitiated || m_session->userEngaged);
    qInfo("The update session ended: %s", qPrintable(error.description()));
    endSession(error);
    if (show)
        m_driver->showUpdaterError(error);
    else
        m_driver->dismissUpdateInstallation();
}
