#include "app/RadioTable.h"

#include "app/Colors.h"
#include "app/Fonts.h"
#include "app/RadioPresentation.h"

#include <QApplication>
#include <QPainter>

RadioListModel::RadioListModel(const RadioEntries &entries, const QList<Announcement> &announcements, QObject *parent)
    : QAbstractListModel(parent), m_entries(entries), m_announcements(announcements)
{
}

int RadioListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_entries.size());
}

QVariant RadioListModel::data(const QModelIndex &index, int role) const
{
    if (role != Qt::DisplayRole && role != SubtitleRole && role != Qt::AccessibleTextRole
        && role != Qt::AccessibleDescriptionRole && role != AnnouncementRole)
        return {};
    if (index.row() < 0 || index.row() >= m_entries.size())
        qFatal("Radio table asked for row %d of %lld", index.row(), qlonglong(m_entries.size()));
    // Until the controller has caught up with a rebuild, a row has no announcement yet.
    const std::optional<Announcement> announcement =
        index.row() < m_announcements.size() ? std::optional(m_announcements.at(index.row())) : std::nullopt;
    if (role == AnnouncementRole)
        return announcement ? QVariant(int(announcement->kind)) : QVariant();
    const RadioCellText cell = radioCellText(m_entries.at(index.row()));
    switch (role) {
    case Qt::DisplayRole: return cell.title;
    case Qt::AccessibleTextRole: // the delegate paints both lines and the dot; say all three
        return announcement ? cell.spoken + QStringLiteral(", ") + announcement->line : cell.spoken;
    default: return cell.subtitle;                   // SubtitleRole, AccessibleDescriptionRole
    }
}

void RadioListModel::reload()
{
    beginResetModel();
    endResetModel();
}

void RadioListModel::announcementsChanged()
{
    if (!m_entries.isEmpty())
        Q_EMIT dataChanged(index(0), index(int(m_entries.size()) - 1),
                           {AnnouncementRole, Qt::AccessibleTextRole});
}

namespace {
QColor announcementColor(const QVariant &kind)
{
    switch (Announcement::Kind(kind.toInt())) {
    case Announcement::Kind::Announced: return successColor();
    case Announcement::Kind::Connecting: return warningColor();
    case Announcement::Kind::NotAnswering:
    case Announcement::Kind::NotAnnounced: return dangerColor();
    case Announcement::Kind::Excluded:
    case Announcement::Kind::ServiceStopped: break;
    }
    return neutralColor();
}
} // namespace

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
    // The dot sits before the name, centred on its line; the name moves right to make room.
    constexpr int dot = 8;
    constexpr int dotGap = 6;
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(Qt::NoPen);
    painter->setBrush(announcementColor(index.data(RadioListModel::AnnouncementRole)));
    painter->drawEllipse(QRectF(content.left(), content.top() + (titleHeight - dot) / 2.0, dot, dot));
    painter->setBrush(Qt::NoBrush);
    painter->setFont(titleFont);
    painter->setPen(primary);
    const QRect titleBox(content.left() + dot + dotGap, content.top(), content.width() - dot - dotGap, titleHeight);
    painter->drawText(titleBox, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(titleFont).elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight,
                                                         titleBox.width()));
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
