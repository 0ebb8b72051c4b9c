// After the user chose to install: download, verification and unpacking in the background,
// "Ready to Install", the delegate's say on the relaunch, the swap and the relaunch.

#include "platform/Background.h"
#include "platform/Outcome.h"
#include "updates/Relaunch.h"
#include "updates/StagedUpdate.h"
#include "updates/UpdateSession.h"
#include "updates/Updater.h"
#include "updates/UpdaterDelegate.h"
#include "updates/UserDriver.h"

namespace {
// The most an update download may be, whatever the unsigned feed claims: many times what
// Veldspar packs into, and a bound on the disk a bogus feed can make it fill. Below it the
// feed's length is what the download must have.
constexpr qint64 largestUpdateDownload = qint64(1) << 30;

void checkDownloadSize(const AppcastItem &item)
{
    if (item.enclosure->length > largestUpdateDownload)
        throw updateError(UpdateErrorCode::LengthMismatch,
                          QStringLiteral("The feed states that the update %1 is %2 bytes long, more than the %3 bytes "
                                         "Veldspar accepts for an update.")
                              .arg(item.versionLabel())
                              .arg(item.enclosure->length)
                              .arg(largestUpdateDownload));
}
} // namespace

void Updater::startDownload()
{
    m_session->userEngaged = true;
    const AppcastItem &item = *m_session->item;
    try {
        checkEnclosure(item);
        checkDownloadSize(item);
        if (const auto reason = insecureUrlReason(item.enclosure->url))
            throw updateError(UpdateErrorCode::InsecureLink,
                              QStringLiteral("Veldspar refuses to download the update %1: %2 %3.")
                                  .arg(item.versionLabel(), item.enclosure->url.toDisplayString(), *reason));
        // Before any byte is fetched: a folder that cannot be changed makes the update
        // impossible, and the message says where.
        m_session->staging = StagingFolder::create(m_host.path);
    } catch (const Error &error) {
        fail(error);
        return;
    }
    m_session->stage = UpdateSession::Stage::Downloading;
    refreshCanCheck();

    FetchRequest request;
    request.url = item.enclosure->url;
    request.what = QStringLiteral("the update %1").arg(item.versionLabel());
    request.destination = m_session->staging->archivePath();
    request.limit = item.enclosure->length;
    request.expectedLength = item.enclosure->length;
    request.failureCode = UpdateErrorCode::DownloadFailed;
    m_session->download.reset(new Fetch(request));
    connect(m_session->download.get(), &Fetch::progress, this, [this](qint64 received, qint64 expected) {
        if (m_session && m_session->stage == UpdateSession::Stage::Downloading)
            m_driver->showDownloadProgress(received, expected);
    });
    connect(m_session->download.get(), &Fetch::finished, this, &Updater::downloadFinished);
    m_session->download->start();
    m_driver->showDownloadStarted(replyTo(&Updater::cancelDownload));
}

void Updater::cancelDownload()
{
    if (!m_session || m_session->stage != UpdateSession::Stage::Downloading)
        return;
    endSession();
    m_driver->dismissUpdateInstallation();
}

void Updater::downloadFinished(const FetchResult &result)
{
    if (!m_session || m_session->stage != UpdateSession::Stage::Downloading)
        return;
    if (result.error) {
        fail(*result.error);
        return;
    }
    m_session->stage = UpdateSession::Stage::Unpacking;
    refreshCanCheck();
    const quint64 serial = m_session->serial;
    const std::shared_ptr<StagingFolder> staging = m_session->staging;
    const AppcastItem item = *m_session->item;
    const QByteArray publicKey = m_configuration.publicKey;
    const BundleInfo host = m_host;
    runInBackground(
        this,
        [staging, item, publicKey, host] {
            return attempt([&] { return stageUpdate(staging->archivePath(), staging->unpackedPath(), item, publicKey, host); });
        },
        [this, serial](Outcome<QString> outcome) {
            if (!m_session || m_session->serial != serial || m_session->stage != UpdateSession::Stage::Unpacking)
                return;
            if (outcome.error)
                fail(*outcome.error);
            else
                staged(*outcome.value);
        });
    m_driver->showExtractionStarted();
}

void Updater::staged(const QString &stagedBundle)
{
    m_session->stagedBundle = stagedBundle;
    m_session->stage = UpdateSession::Stage::ReadyToInstall;
    m_session->promptOpen = true;
    refreshCanCheck();
    m_driver->showReadyToInstall(replyTo(&Updater::answerReadyToInstall));
}

void Updater::answerReadyToInstall(InstallAnswer answer)
{
    if (!m_session || m_session->stage != UpdateSession::Stage::ReadyToInstall)
        return;
    m_session->promptOpen = false;
    if (answer == InstallAnswer::Later)
        return; // stays staged; installed when the app quits
    if (m_delegate && !m_session->askedToPostpone) {
        m_session->askedToPostpone = true;
        QPointer<Updater> self(this);
        const quint64 serial = m_session->serial;
        auto used = std::make_shared<bool>(false);
        auto install = [self, serial, used] {
            if (*used || !self)
                return;
            *used = true;
            QMetaObject::invokeMethod(
                self.data(),
                [self, serial] {
                    if (self && self->m_session && self->m_session->serial == serial
                        && self->m_session->stage == UpdateSession::Stage::Postponed)
                        self->installAndRelaunch();
                },
                Qt::QueuedConnection);
        };
        if (m_delegate->shouldPostponeRelaunch(*m_session->item, install)) {
            if (m_session && m_session->serial == serial) {
                m_session->stage = UpdateSession::Stage::Postponed;
                refreshCanCheck();
            }
            return;
        }
        if (!m_session || m_session->serial != serial)
            return;
    }
    installAndRelaunch();
}

void Updater::installAndRelaunch()
{
    m_session->stage = UpdateSession::Stage::Installing;
    refreshCanCheck();
    m_driver->showInstallingUpdate();
    if (!install())
        return;
    BundleInfo installed = m_host;
    try {
        installed = readBundleInfo(m_host.path);
    } catch (const Error &) {
        // Validated before the swap; keep the old executable name if it cannot be read now.
    }
    endSession();
    m_driver->dismissUpdateInstallation();
    relaunchApplication({installed.executablePath(), {}, installed.path});
}

bool Updater::install()
{
    try {
        swapBundles(m_host.path, m_session->stagedBundle);
        return true;
    } catch (const Error &error) {
        fail(error);
        return false;
    }
}

void Updater::installUpdateOnQuit()
{
    if (!m_session)
        return;
    if (m_session->stage != UpdateSession::Stage::ReadyToInstall && m_session->stage != UpdateSession::Stage::Postponed) {
        // Nothing resumes a cut-short download: ending the session deletes its staging folder.
        endSession();
        return;
    }
    if (m_delegate && !m_delegate->shouldInstallOnQuit(*m_session->item)) {
        qInfo("The staged update is not installed at quit: an operation is still running.");
        endSession();
        return;
    }
    try {
        swapBundles(m_host.path, m_session->stagedBundle);
        endSession();
    } catch (const Error &error) {
        qWarning("The update could not be installed at quit: %s", qPrintable(error.description()));
        endSession(error);
    }
}
