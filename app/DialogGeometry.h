#pragma once

#include <QList>
#include <QRect>

// The modal panel's layout, in top-down pixel coordinates, computed from the heights of
// the stacked views (the text labels, then the input field) without any widget.
struct DialogGeometry
{
    int height = 0;            // H: sum of (view height + 12), plus 156
    QRect icon;                // 64 × 64, 24 below the top edge, centred
    QList<QRect> views;        // the stacked views, top to bottom
    QRect okButton;            // 88 × 32, 20 above the bottom edge
    QRect cancelButton;        // empty when there is no Cancel button
};

inline constexpr int dialogWidth = 460;
inline constexpr int dialogTextWidth = 396;   // a text label's width, at x 32
inline constexpr int dialogLayoutWidth = 388; // the width the text is laid out in
inline constexpr int dialogInputHeight = 26;  // the input field: x 48, width 364

// A wrapped text's label height: its laid-out height rounded up, plus 10.
int dialogLabelHeight(qreal laidOutTextHeight);

// viewHeights: the text labels' heights in order, then the input field's when there is one.
DialogGeometry dialogGeometry(const QList<int> &viewHeights, bool hasInput, bool cancel);
