#pragma once

#include "app/Announcement.h"
#include "config/ConfigDocument.h"

#include <QAbstractListModel>
#include <QStyledItemDelegate>

// The radio list as a model over the controller's entries: one row per entry, nothing kept
// per row, so ten thousand radios cost no more widgets than three.
class RadioListModel : public QAbstractListModel
{
    Q_OBJECT

public:
    enum Role { SubtitleRole = Qt::UserRole + 1, AnnouncementRole };

    // announcements: one per entry, kept by the controller alongside the entries.
    RadioListModel(const RadioEntries &entries, const QList<Announcement> &announcements, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

    // The entries changed as a whole.
    void reload();
    // Only the announcements changed: every row repaints, the selection stays.
    void announcementsChanged();

private:
    const RadioEntries &m_entries;
    const QList<Announcement> &m_announcements;
};

// Paints a row's two lines, the first after a dot in the colour of the radio's announcement;
// rows are 66 high and 380 wide.
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
