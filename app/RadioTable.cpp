#include "app/RadioTable.h"

#include "app/Fonts.h"
#include "app/RadioPresentation.h"

#include <QApplication>
#include <QPainter>

RadioListModel::RadioListModel(const RadioEntries &entries, QObject *parent)
    : QAbstractListModel(parent), m_entries(entries)
{
}

int RadioListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_entries.size());
}

QVariant RadioListModel::data(const QModelIndex &index, int role) const
{
    if (role != Qt::DisplayRole && role != SubtitleRole && role != Qt::AccessibleTextRole
        && role != Qt::AccessibleDescriptionRole)
        return {};
    if (index.row() < 0 || index.row() >= m_entries.size())
        qFatal("Radio table asked for row %d of %lld", index.row(), qlonglong(m_entries.size()));
    const RadioCellText cell = radioCellText(m_entries.at(index.row()));
    switch (role) {
    case Qt::DisplayRole: return cell.title;
    case Qt::AccessibleTextRole: return cell.spoken; // the delegate paints both lines; say both
    default: return cell.subtitle;                   // SubtitleRole, AccessibleDescriptionRole
    }
}

void RadioListModel::reload()
{
    beginResetModel();
    endResetModel();
}

void RadioCellDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    QWidget *view = const_cast<QWidget *>(option.widget);
    QStyle *style = view ? view->style() : QApplication::style();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &background, painter, view);

    const bool selected = option.state & QStyle::State_Selected;
    const QPalette &palette = option.palette;
    const QColor primary = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    const QColor secondary = selected ? primary : palette.color(QPalette::PlaceholderText);

    const QFont titleFont = systemFont(14, QFont::DemiBold);
    const QFont subtitleFont = systemFont(12);
    const QRect content = option.rect.adjusted(8, 10, -8, -10);
    const int titleHeight = QFontMetrics(titleFont).height();

    painter->save();
    painter->setFont(titleFont);
    painter->setPen(primary);
    const QRect titleBox(content.left(), content.top(), content.width(), titleHeight);
    painter->drawText(titleBox, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(titleFont).elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight,
                                                         content.width()));
    painter->setFont(subtitleFont);
    painter->setPen(secondary);
    const QRect subtitleBox(content.left(), titleBox.bottom() + 1 + 5, content.width(),
                            QFontMetrics(subtitleFont).height());
    painter->drawText(subtitleBox, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(subtitleFont)
                          .elidedText(index.data(RadioListModel::SubtitleRole).toString(), Qt::ElideRight,
                                      content.width()));
    painter->restore();
}

QSize RadioCellDelegate::sizeHint(const QStyleOptionViewItem &, const QModelIndex &) const
{
    return {columnWidth, rowHeight};
}
