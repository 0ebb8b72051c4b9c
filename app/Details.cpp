#include "app/AppDelegate.h"

#include "app/RadioPresentation.h"

#include <QCheckBox>
#include <QLabel>
#include <QListView>
#include <QPushButton>

int AppDelegate::selectedRow() const
{
    const QModelIndexList selected = table->selectionModel()->selectedRows();
    return selected.isEmpty() ? -1 : selected.first().row();
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
    detailTitle->setText(content.title);
    for (auto it = values.constBegin(); it != values.constEnd(); ++it)
        it.value()->setText(content.values.value(it.key()));
    enabledButton->setEnabled(content.controlsEnabled);
    removeButton->setEnabled(content.controlsEnabled);
    enabledButton->setChecked(content.included);
}
