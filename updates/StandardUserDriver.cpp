#include "updates/StandardUserDriver.h"

#include "updates/UpdateTexts.h"

#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTextBrowser>
#include <QVBoxLayout>

#include <algorithm>

namespace {
QFont headingFont(const QFont &base)
{
    QFont font = base;
    font.setBold(true);
    font.setPixelSize(15);
    return font;
}
} // namespace

StandardUserDriver::StandardUserDriver() = default;

StandardUserDriver::~StandardUserDriver()
{
    delete m_window;
}

QDialog *StandardUserDriver::newWindow(const QString &heading, const QString &detail)
{
    dismissUpdateInstallation();
    auto *window = new QDialog(nullptr, Qt::Dialog);
    window->setObjectName(QStringLiteral("updateWindow"));
    window->setWindowTitle(QStringLiteral("Software Update"));
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->setMinimumWidth(420);
    auto *layout = new QVBoxLayout(window);
    auto *title = new QLabel(heading);
    title->setObjectName(QStringLiteral("heading"));
    title->setTextFormat(Qt::PlainText);
    title->setFont(headingFont(title->font()));
    title->setWordWrap(true);
    layout->addWidget(title);
    m_detail = new QLabel(detail);
    m_detail->setObjectName(QStringLiteral("detail"));
    m_detail->setTextFormat(Qt::PlainText);
    m_detail->setWordWrap(true);
    m_detail->setVisible(!detail.isEmpty());
    layout->addWidget(m_detail);
    auto *buttons = new QDialogButtonBox;
    buttons->setObjectName(QStringLiteral("buttons"));
    layout->addWidget(buttons);
    m_window = window;
    return window;
}

QPushButton *StandardUserDriver::addButton(const QString &title, std::function<void()> action, bool isDefault)
{
    auto *buttons = m_window->findChild<QDialogButtonBox *>(QStringLiteral("buttons"));
    QPushButton *button = buttons->addButton(title, QDialogButtonBox::ActionRole);
    button->setDefault(isDefault);
    button->setAutoDefault(isDefault);
    // The window goes first, then the answer, which may open the next window.
    QObject::connect(button, &QPushButton::clicked, m_window, [this, action = std::move(action)] {
        dismissUpdateInstallation();
        action();
    });
    return button;
}

void StandardUserDriver::present()
{
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void StandardUserDriver::showProgress(const QString &heading, int maximum, std::function<void()> cancel)
{
    newWindow(heading, QString());
    m_progress = new QProgressBar;
    m_progress->setRange(0, maximum);
    m_progress->setTextVisible(false);
    static_cast<QVBoxLayout *>(m_window->layout())->insertWidget(2, m_progress);
    if (cancel)
        addButton(QStringLiteral("Cancel"), std::move(cancel));
    present();
}

void StandardUserDriver::showUpdatePermissionRequest(std::function<void(bool)> reply)
{
    newWindow(QStringLiteral("Check for updates automatically?"),
              QStringLiteral("Should Veldspar automatically check for updates? You can always check for updates "
                             "manually from the Veldspar menu."));
    addButton(QStringLiteral("Don\u2019t Check"), [reply] { reply(false); });
    addButton(QStringLiteral("Check Automatically"), [reply] { reply(true); }, true);
    present();
}

void StandardUserDriver::showUserInitiatedUpdateCheck(std::function<void()> cancel)
{
    showProgress(QStringLiteral("Checking for updates\u2026"), 0, std::move(cancel));
}

void StandardUserDriver::showUpdateFound(const UpdateOffer &offer, std::function<void(UpdateAnswer)> reply)
{
    newWindow(QStringLiteral("A new version of %1 is available!").arg(offer.appName),
              QStringLiteral("%1 %2 is now available\u2014you have %3. Would you like to download it now?")
                  .arg(offer.appName, offer.item.versionLabel(), offer.currentVersion));
    m_notes = new QTextBrowser;
    m_notes->setObjectName(QStringLiteral("releaseNotes"));
    m_notes->setOpenExternalLinks(true);
    m_notes->setMinimumHeight(160);
    switch (offer.item.descriptionFormat) {
    case NotesFormat::Html: m_notes->setHtml(offer.item.description); break;
    case NotesFormat::Markdown: m_notes->setMarkdown(offer.item.description); break;
    case NotesFormat::PlainText: m_notes->setPlainText(offer.item.description); break;
    }
    m_notes->setVisible(!offer.item.description.isEmpty() || !offer.item.releaseNotesLink.isEmpty());
    static_cast<QVBoxLayout *>(m_window->layout())->insertWidget(2, m_notes);

    if (!offer.critical) {
        addButton(QStringLiteral("Skip This Version"), [reply] { reply(UpdateAnswer::Skip); });
        addButton(QStringLiteral("Remind Me Later"), [reply] { reply(UpdateAnswer::RemindLater); });
    }
    if (offer.informational) {
        const QUrl link = offer.item.link;
        addButton(QStringLiteral("Learn More\u2026"), [reply, link] {
            QDesktopServices::openUrl(link);
            reply(UpdateAnswer::RemindLater);
        }, true);
    } else {
        addButton(QStringLiteral("Install Update"), [reply] { reply(UpdateAnswer::Install); }, true);
    }
    present();
}

void StandardUserDriver::showReleaseNotes(const ReleaseNotes &notes)
{
    if (!m_notes)
        return;
    switch (notes.format) {
    case NotesFormat::Html: m_notes->setHtml(notes.text); break;
    case NotesFormat::Markdown: m_notes->setMarkdown(notes.text); break;
    case NotesFormat::PlainText: m_notes->setPlainText(notes.text); break;
    }
    m_notes->setVisible(true);
}

void StandardUserDriver::showReleaseNotesFailed(const Error &error)
{
    if (m_notes)
        m_notes->setPlainText(QStringLiteral("The release notes could not be loaded: ") + error.localizedDescription());
}

void StandardUserDriver::showUpdateNotFound(const UpToDate &message)
{
    newWindow(message.title, message.detail);
    addButton(QStringLiteral("OK"), [] {}, true);
    present();
}

void StandardUserDriver::showUpdaterError(const Error &error)
{
    newWindow(QStringLiteral("Update Error!"), error.localizedDescription());
    addButton(QStringLiteral("OK"), [] {}, true);
    present();
}

void StandardUserDriver::showDownloadStarted(std::function<void()> cancel)
{
    showProgress(QStringLiteral("Downloading update\u2026"), 1000, std::move(cancel));
}

void StandardUserDriver::showDownloadProgress(qint64 received, qint64 expected)
{
    if (!m_progress || !m_detail)
        return;
    m_detail->setText(formatByteProgress(received, expected));
    m_detail->setVisible(true);
    if (expected > 0)
        m_progress->setValue(int(std::clamp<qint64>(received * 1000 / expected, 0, 1000)));
}

void StandardUserDriver::showExtractionStarted()
{
    showProgress(QStringLiteral("Extracting update\u2026"), 0, nullptr);
}

void StandardUserDriver::showReadyToInstall(std::function<void(InstallAnswer)> reply)
{
    newWindow(QStringLiteral("Ready to Install"), QStringLiteral("Veldspar is ready to be installed."));
    addButton(QStringLiteral("Later"), [reply] { reply(InstallAnswer::Later); });
    addButton(QStringLiteral("Install and Relaunch"), [reply] { reply(InstallAnswer::InstallAndRelaunch); }, true);
    present();
}

void StandardUserDriver::showInstallingUpdate()
{
    showProgress(QStringLiteral("Installing update\u2026"), 0, nullptr);
}

void StandardUserDriver::showUpdateInFocus()
{
    if (m_window)
        present();
}

void StandardUserDriver::dismissUpdateInstallation()
{
    if (m_window) {
        m_window->hide();
        m_window->deleteLater();
    }
    m_window.clear();
}
