#pragma once

#include "platform/Error.h"
#include "updates/Appcast.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/Eligibility.h"
#include "updates/UpdateEngine.h"
#include "updates/UserDriver.h"

#include <QDateTime>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

class UpdaterDelegate;
struct FetchResult;
struct UpdateSession;

// Checks the feed, offers updates through the user driver, downloads, verifies, unpacks and
// installs them, and relaunches the app. Lives on the main thread; blocking work runs on a
// download thread or the background pool.
//
// Sessions: a check (user-initiated or scheduled) → an offer → a download → verification and
// unpacking → "Ready to Install" → the swap and the relaunch. Only one runs at a time.
class Updater : public UpdateEngine
{
public:
    // The driver must outlive the updater; the delegate may be null. The bundle is the running
    // one (platform's bundleLocation()) unless a path is given.
    Updater(UserDriver *driver, UpdaterDelegate *delegate, QObject *parent = nullptr, const QString &bundlePath = QString());
    ~Updater() override;

    // Reads the bundle's settings, schedules automatic checks and, on the second launch when
    // Info.plist leaves it open, asks whether to check automatically. Throws Error when the
    // settings are missing or invalid (no feed, an http feed, a bad SUPublicEDKey); the
    // updater then stays unable to check.
    void start() override;
    bool isStarted() const { return m_started; }

    // False before start() and while a check, download, unpacking or installation runs.
    bool canCheckForUpdates() const override;
    bool sessionInProgress() const override { return bool(m_session); }

    // The user's choice, else SUEnableAutomaticChecks, else false. Setting it persists it.
    bool automaticallyChecksForUpdates() const override;
    void setAutomaticallyChecksForUpdates(bool on) override;
    // Seconds between scheduled checks (0: never): the user's choice, else Info.plist's.
    qint64 updateCheckInterval() const;
    void setUpdateCheckInterval(qint64 seconds);
    QDateTime lastUpdateCheckDate() const;
    QString skippedVersion() const;
    // When the next scheduled check fires; invalid when none is scheduled.
    QDateTime nextScheduledCheck() const { return m_nextCheck; }

    const BundleInfo &hostBundle() const { return m_host; }
    QUrl feedUrl() const { return m_configuration.feedUrl; }
    // The error that ended the last session, shown or not; none when it ended well.
    const std::optional<Error> &lastError() const { return m_lastError; }

    // A user-initiated check ("Check for Updates…"): clears the skipped version; every
    // outcome is shown. While a session waits for the user it brings that window forward.
    void checkForUpdates() override;
    // A check as the schedule makes it: silent unless an update is offered.
    void checkForUpdatesInBackground();
    // Installs an update that is ready or whose relaunch was postponed, without relaunching,
    // unless the delegate says no (an operation still runs). Any other session ends, and its
    // staging folder goes. Called when the application is about to quit.
    void installUpdateOnQuit() override;

private:
    // Updater.cpp: state, settings and the schedule.
    void reschedule();
    void scheduledCheckDue();
    void askPermissionIfNeeded();
    void refreshCanCheck();
    void endSession(std::optional<Error> error = std::nullopt);
    // Ends the session with an error, shown when the user asked for the check or chose to
    // install, dropped otherwise.
    void fail(const Error &error);
    template <typename... Args>
    std::function<void(Args...)> replyTo(void (Updater::*handler)(Args...));

    // UpdaterCheck.cpp: the feed, the choice and the offer.
    void beginCheck(CheckKind kind);
    void bringSessionForward();
    void cancelCheck();
    void feedArrived(const FetchResult &result);
    void offer(const AppcastItem &item);
    void fetchReleaseNotes(const QUrl &url);
    void answerOffer(UpdateAnswer answer);

    // UpdaterInstall.cpp: download, verification, unpacking, installation.
    void startDownload();
    void cancelDownload();
    void downloadFinished(const FetchResult &result);
    void staged(const QString &stagedBundle);
    void answerReadyToInstall(InstallAnswer answer);
    void installAndRelaunch();
    bool install();

    UserDriver *m_driver;
    UpdaterDelegate *m_delegate;
    QString m_bundlePath;
    BundleInfo m_host;
    UpdaterConfiguration m_configuration;
    bool m_started = false;
    bool m_canCheck = false;
    std::unique_ptr<UpdateSession> m_session;
    quint64 m_sessionSerial = 0; // results for an earlier session are ignored
    quint64 m_promptSerial = 0;  // replies to an earlier prompt are ignored
    std::optional<Error> m_lastError;
    QTimer m_scheduleTimer;
    QDateTime m_nextCheck;
};
