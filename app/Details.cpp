#include "app/AppDelegate.h"

#include "app/ElidingLabel.h"
#include "app/RadioPresentation.h"

#include <QCheckBox>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QSignalBlocker>

// The row the table has selected, as the table remembers it. The model reads `entries`
// directly, so after an edit has already shortened them (removing the last radio) the
// selected row may lie past the end until the list is rebuilt; it still counts, so that the
// rebuild can move the selection to the new last row.
int AppDelegate::selectedRow() const
{
    const QItemSelection selection = table->selectionModel()->selection();
    return selection.isEmpty() ? -1 : selection.first().top();
}

void AppDelegate::selectRow(int row)
{
    if (row < 0) {
        table->selectionModel()->clearSelection();
        return;
    }
    const QModelIndex index = table->model()->index(row, 0);
    table->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
}

void AppDelegate::tableViewSelectionDidChange()
{
    updateDetails();
}

void AppDelegate::updateDetails()
{
    const DetailsContent content = detailsContent(entries, selectedRow());
    detailTitle->setFullText(content.title, content.title);
    for (const DetailField &field : detailFields()) {
        const QString text = content.values.value(field.key);
        values.value(field.key)->setFullText(text, spokenDetail(field, text));
    }
    const int row = selectedRow();
    const QString announced = content.controlsEnabled && row < announcements.size() ? announcements.at(row).line
                                                                                   : QStringLiteral("\u2014");
    announcementLine->setFullText(announced, QStringLiteral("Announcement: ") + announced);
    enabledButton->setEnabled(content.controlsEnabled);
    removeButton->setEnabled(content.controlsEnabled);
    // Showing the entry is not an edit of it, so it must not reach toggleRadio.
    const QSignalBlocker quiet(enabledButton);
    enabledButton->setChecked(content.included);
}
