// The check: fetching the feed, choosing an item, asking the delegate and offering it.

#include "updates/SystemVersion.h"
#include "updates/UpdateSession.h"
#include "updates/Updater.h"
#include "updates/UpdaterDelegate.h"
#include "updates/UserDriver.h"
#include "updates/UserSettings.h"

namespace {
constexpr qint64 feedLimit = 16 << 20;
constexpr qint64 releaseNotesLimit = 4 << 20;

NotesFormat formatOf(const QString &contentType, const QUrl &url)
{
    const QString type = contentType.section(u';', 0, 0).trimmed().toLower();
    const QString path = url.path().toLower();
    if (type == u"text/markdown" || path.endsWith(QStringLiteral(".md")))
        return NotesFormat::Markdown;
    if (type == u"text/plain" || path.endsWith(QStringLiteral(".txt")))
        return NotesFormat::PlainText;
    return NotesFormat::Html;
}
} // namespace

void Updater::checkForUpdates()
{
    if (!m_started)
        return;
    if (m_session) {
        bringSessionForward();
        return;
    }
    beginCheck(CheckKind::UserInitiated);
}

void Updater::checkForUpdatesInBackground()
{
    if (!m_started || m_session)
        return;
    beginCheck(CheckKind::Scheduled);
}

void Updater::bringSessionForward()
{
    using Stage = UpdateSession::Stage;
    switch (m_session->stage) {
    case Stage::ReadyToInstall:
        if (!m_session->promptOpen) {
            // The user said Later; asking again shows the staged update again.
            m_session->promptOpen = true;
            m_driver->showReadyToInstall(replyTo(&Updater::answerReadyToInstall));
            return;
        }
        m_driver->showUpdateInFocus();
        return;
    case Stage::Offered:
    case Stage::Postponed:
        m_driver->showUpdateInFocus();
        return;
    default:
        return; // something runs; "Check for Updates…" is disabled meanwhile
    }
}

void Updater::beginCheck(CheckKind kind)
{
    if (kind == CheckKind::UserInitiated)
        UpdateUserSettings::setSkippedVersion(QString());
    UpdateUserSettings::setLastCheckTime(QDateTime::currentDateTimeUtc());
    m_lastError.reset();
    m_session = std::make_unique<UpdateSession>(kind, ++m_sessionSerial);
    refreshCanCheck();
    reschedule();

    FetchRequest request;
    request.url = m_configuration.feedUrl;
    request.what = QStringLiteral("the update feed");
    request.limit = feedLimit;
    request.failureCode = UpdateErrorCode::FeedUnavailable;
    m_session->feedFetch.reset(new Fetch(request));
    connect(m_session->feedFetch.get(), &Fetch::finished, this, &Updater::feedArrived);
    m_session->feedFetch->start();
    if (kind == CheckKind::UserInitiated)
        m_driver->showUserInitiatedUpdateCheck(replyTo(&Updater::cancelCheck));
}

void Updater::cancelCheck()
{
    if (!m_session || m_session->stage != UpdateSession::Stage::Checking)
        return;
    endSession();
    m_driver->dismissUpdateInstallation();
}

void Updater::feedArrived(const FetchResult &result)
{
    if (!m_session || m_session->stage != UpdateSession::Stage::Checking)
        return;
    if (result.error) {
        fail(*result.error);
        return;
    }
    Appcast appcast;
    try {
        appcast = parseAppcast(result.body, m_configuration.feedUrl);
    } catch (const Error &error) {
        fail(error);
        return;
    }
    CheckContext context;
    context.currentVersion = m_host.version;
    context.systemVersion = systemVersion();
    context.kind = m_session->kind;
    context.skippedVersion = UpdateUserSettings::skippedVersion();
    context.now = QDateTime::currentDateTimeUtc();
    context.rolloutGroup = UpdateUserSettings::rolloutGroup();
    const UpdateChoice choice = chooseUpdate(appcast, context);
    if (!choice.item) {
        const bool userInitiated = m_session->kind == CheckKind::UserInitiated;
        endSession();
        if (userInitiated)
            m_driver->showUpdateNotFound(
                {QStringLiteral("You\u2019re up to date!"),
                 QStringLiteral("%1 %2 is currently the newest version available.").arg(m_host.name, m_host.shortVersion)});
        return;
    }
    offer(*choice.item);
}

void Updater::offer(const AppcastItem &item)
{
    const CheckKind kind = m_session->kind;
    if (m_delegate) {
        std::optional<Error> refusal;
        try {
            refusal = m_delegate->shouldProceedWithUpdate(item, kind);
        } catch (const Error &error) {
            refusal = error;
        }
        if (!m_session)
            return;
        if (refusal) {
            fail(*refusal);
            return;
        }
    }
    m_session->item = item;
    m_session->stage = UpdateSession::Stage::Offered;
    m_session->promptOpen = true;
    refreshCanCheck();

    UpdateOffer offer;
    offer.item = item;
    offer.appName = m_host.name;
    offer.currentVersion = m_host.shortVersion;
    offer.userInitiated = kind == CheckKind::UserInitiated;
    offer.critical = item.isCriticalFor(m_host.version);
    offer.informational = item.isInformationalFor(m_host.version);
    const auto reply = replyTo(&Updater::answerOffer);
    if (item.description.isEmpty() && item.releaseNotesLink.isValid())
        fetchReleaseNotes(item.releaseNotesLink);
    m_driver->showUpdateFound(offer, reply);
}

void Updater::fetchReleaseNotes(const QUrl &url)
{
    FetchRequest request;
    request.url = url;
    request.what = QStringLiteral("the release notes");
    request.limit = releaseNotesLimit;
    m_session->notesFetch.reset(new Fetch(request));
    const quint64 serial = m_session->serial;
    connect(m_session->notesFetch.get(), &Fetch::finished, this, [this, serial, url](const FetchResult &result) {
        if (!m_session || m_session->serial != serial)
            return;
        if (result.error) {
            m_driver->showReleaseNotesFailed(*result.error);
            return;
        }
        m_driver->showReleaseNotes({QString::fromUtf8(result.body), formatOf(result.contentType, url), url});
    });
    m_session->notesFetch->start();
}

void Updater::answerOffer(UpdateAnswer answer)
{
    if (!m_session || m_session->stage != UpdateSession::Stage::Offered)
        return;
    m_session->promptOpen = false;
    const AppcastItem item = *m_session->item;
    if (answer == UpdateAnswer::Install && !item.isInformationalFor(m_host.version)) {
        startDownload();
        return;
    }
    if (answer == UpdateAnswer::Skip && !item.isCriticalFor(m_host.version))
        UpdateUserSettings::setSkippedVersion(item.version);
    endSession();
    m_driver->dismissUpdateInstallation();
}
