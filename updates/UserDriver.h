#pragma once

#include "platform/Error.h"
#include "updates/Appcast.h"

#include <QString>
#include <QUrl>

#include <functional>

// The update found by a check, as the "update found" dialog shows it.
struct UpdateOffer
{
    AppcastItem item;        // version, displayVersion, title, description and links
    QString appName;         // "Veldspar"
    QString currentVersion;  // the installed CFBundleShortVersionString
    bool userInitiated = false;
    bool critical = false;      // hide "Skip This Version" and "Remind Me Later"
    bool informational = false; // nothing to install: offer the item's link instead of "Install Update"
};

enum class UpdateAnswer { Install, RemindLater, Skip };
enum class InstallAnswer { InstallAndRelaunch, Later };

// Release notes fetched from the item's sparkle:releaseNotesLink.
struct ReleaseNotes
{
    QString text;
    NotesFormat format = NotesFormat::Html;
    QUrl url;
};

// "You're up to date!" and its detail line.
struct UpToDate
{
    QString title;
    QString detail;
};

// How the updater talks to the user. A widgets layer implements it with QMessageBox or
// QDialog; every call comes on the main thread. Each show… call replaces whatever update
// window is up, so one window can follow the whole session.
//
// Calls should return without waiting for the user (QDialog::open() or show() and a slot
// for the answer). Replies are queued to the updater, so answering from inside the call,
// for instance after exec(), works too. Only the first call of a reply function counts; one
// that arrives after the session has moved on is ignored, and calling one after the
// updater is gone is harmless.
class UserDriver
{
public:
    virtual ~UserDriver() = default;

    // Second launch, when Info.plist does not decide: "Check for updates automatically?"
    virtual void showUpdatePermissionRequest(std::function<void(bool automaticChecks)> reply) = 0;
    // A user-initiated check runs: "Checking for updates…" with Cancel.
    virtual void showUserInitiatedUpdateCheck(std::function<void()> cancel) = 0;
    // An update is available: version, release notes, "Install Update", "Remind Me Later",
    // "Skip This Version" (offer.critical hides the last two).
    virtual void showUpdateFound(const UpdateOffer &offer, std::function<void(UpdateAnswer)> reply) = 0;
    // The notes behind the item's release-notes link, after showUpdateFound.
    virtual void showReleaseNotes(const ReleaseNotes &notes) = 0;
    virtual void showReleaseNotesFailed(const Error &error) = 0;
    // A user-initiated check found nothing newer.
    virtual void showUpdateNotFound(const UpToDate &message) = 0;
    // A user-initiated check, or an update the user chose to install, failed or was refused.
    virtual void showUpdaterError(const Error &error) = 0;
    // The download: "X of Y" (formatByteProgress) with Cancel.
    virtual void showDownloadStarted(std::function<void()> cancel) = 0;
    virtual void showDownloadProgress(qint64 received, qint64 expected) = 0;
    // Verifying and unpacking, no Cancel.
    virtual void showExtractionStarted() = 0;
    // "Ready to Install" with "Install and Relaunch"; Later installs it when the app quits.
    virtual void showReadyToInstall(std::function<void(InstallAnswer)> reply) = 0;
    virtual void showInstallingUpdate() = 0;
    // "Check for Updates…" while the session's window waits for an answer: bring it forward.
    virtual void showUpdateInFocus() = 0;
    // The session is over: close any update window still open.
    virtual void dismissUpdateInstallation() = 0;
};
