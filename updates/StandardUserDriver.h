#pragma once

#include "updates/UserDriver.h"

#include <QPointer>

class QDialog;
class QLabel;
class QProgressBar;
class QPushButton;
class QTextBrowser;

// The updater's standard windows, built from Qt widgets. One window at a time: each step of a
// session replaces the previous step's window. None is modal, so the app stays usable.
class StandardUserDriver : public UserDriver
{
public:
    StandardUserDriver();
    ~StandardUserDriver() override;

    void showUpdatePermissionRequest(std::function<void(bool)> reply) override;
    void showUserInitiatedUpdateCheck(std::function<void()> cancel) override;
    void showUpdateFound(const UpdateOffer &offer, std::function<void(UpdateAnswer)> reply) override;
    void showReleaseNotes(const ReleaseNotes &notes) override;
    void showReleaseNotesFailed(const Error &error) override;
    void showUpdateNotFound(const UpToDate &message) override;
    void showUpdaterError(const Error &error) override;
    void showDownloadStarted(std::function<void()> cancel) override;
    void showDownloadProgress(qint64 received, qint64 expected) override;
    void showExtractionStarted() override;
    void showReadyToInstall(std::function<void(InstallAnswer)> reply) override;
    void showInstallingUpdate() override;
    void showUpdateInFocus() override;
    void dismissUpdateInstallation() override;

    // The window on screen now, if any (for tests and screenshots).
    QDialog *window() const { return m_window; }

private:
    // A new window with a heading and a detail line, replacing the current one.
    QDialog *newWindow(const QString &heading, const QString &detail);
    // A progress window: a bar (busy when maximum is 0) and optionally a Cancel button.
    void showProgress(const QString &heading, int maximum, std::function<void()> cancel);
    QPushButton *addButton(const QString &title, std::function<void()> action, bool isDefault = false);
    void present();

    QPointer<QDialog> m_window;
    QPointer<QLabel> m_detail;
    QPointer<QProgressBar> m_progress;
    QPointer<QTextBrowser> m_notes;
};
