#pragma once

#include "config/ConfigDocument.h"

#include <QAbstractListModel>
#include <QStyledItemDelegate>

// The radio list as a model over the controller's entries: one row per entry, nothing kept
// per row, so ten thousand radios cost no more widgets than three.
class RadioListModel : public QAbstractListModel
{
    Q_OBJECT

public:
    enum Role { SubtitleRole = Qt::UserRole + 1 };

    explicit RadioListModel(const RadioEntries &entries, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

    // The entries changed as a whole.
    void reload();

private:
    const RadioEntries &m_entries;
};

// Paints a row's two lines; rows are 66 high and 380 wide.
class RadioCellDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;

    static constexpr int rowHeight = 66;
    static constexpr int columnWidth = 380;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
};
