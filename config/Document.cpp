#include "app/AppDelegate.h"

#include "app/RadioPresentation.h"
#include "app/RadioTable.h"
#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "platform/ConfigurationLimit.h"
#include "platform/RegularFile.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QFileInfo>
#include <QListView>
#include <QStringDecoder>
#include <QUrl>

namespace {
// The file's text, or nothing when it is missing, unreadable or not UTF-8.
std::optional<QString> readUtf8File(const QString &path)
{
    // Bounded and never waiting: a FIFO, a device or a huge file in its place reads as unreadable.
    const FileContents contents = readRegularFile(path, largestConfigurationFile);
    if (contents.problem != FileContents::Problem::None)
        return std::nullopt;
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder(contents.bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}
} // namespace

void AppDelegate::reload()
{
    const std::optional<QString> text = readUtf8File(configURL);
    configOnDisk = text;
    if (!text) {
        emptyConfig();
        return;
    }
    draft().setText(*text);
    refreshRadios();
    // "Reload" works while a save is verifying; that save keeps the status line, which goes
    // on saying the radios are being checked until the save reports the replaced draft.
    if (!busy)
        setStatus(QStringLiteral("Configuration loaded"));
}

bool AppDelegate::configChangedOnDisk() const
{
    return readUtf8File(configURL) != configOnDisk;
}

void AppDelegate::emptyConfig()
{
    draft().setText(documentText(emptyDocument()));
    refreshRadios();
    if (!busy) // as in reload: a verifying save keeps the status line
        setStatus(QStringLiteral("No radios configured"));
}

void AppDelegate::newConfig()
{
    if (busy)
        return;
    if (!dialog(QStringLiteral("Delete configuration?"),
                QStringLiteral("This will remove all configured radios immediately."), QStringLiteral("Are you sure?"),
                true, nullptr))
        return;
    emptyConfig();
    save();
}

void AppDelegate::json(const QJsonObject &document)
{
    draft().setText(documentText(document));
    refreshRadios();
}

void AppDelegate::refreshRadios()
{
    const int previousRow = selectedRow();
    entries = entriesFromDraft(draft().text());
    findAnnouncements();
    static_cast<RadioListModel *>(table->model())->reload();
    selectRow(rowToSelect(previousRow, int(entries.size())));
    updateDetails();

    enableButton->setEnabled(!busy && (enableButton->active() || !entries.isEmpty()));
    enableButton->setToolTip(entries.isEmpty() ? QStringLiteral("Add or import a radio before enabling the service.")
                                               : QString());
}

void AppDelegate::replaceEntries()
{
    if (refuseInexactDraft())
        return;
    const std::optional<QString> rewritten = draftWithRadios(draft().text(), entries);
    if (!rewritten)
        return;
    draft().setText(*rewritten);
    refreshRadios();
    save();
}

void AppDelegate::toggleRadio()
{
    const int row = selectedRow();
    if (busy || row < 0 || row >= entries.size()) {
        updateDetails(); // the change is refused, so the box shows the entry again
        return;
    }
    entries[row].insert(QStringLiteral("enabled"), enabledButton->checkState() == Qt::Checked);
    replaceEntries();
}

void AppDelegate::removeRadio()
{
    const int row = selectedRow();
    if (busy || row < 0 || row >= entries.size())
        return;
    entries.removeAt(row);
    replaceEntries();
}

void AppDelegate::showFolder()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(configURL).path()));
}
