#pragma once

#include <QProxyStyle>

// The desktop's own style, as Qt would pick it, with one change: the menu bar's overflow arrow
// is loaded when it is first drawn instead of when the menu bar is made. Loading it means
// probing every image-format plugin on the system, milliseconds on the way to the first frame,
// for an arrow that shows only when the window is too narrow for its menus.
class AppStyle : public QProxyStyle
{
    Q_OBJECT

public:
    QIcon standardIcon(StandardPixmap which, const QStyleOption *option = nullptr,
                       const QWidget *widget = nullptr) const override;
};

// Makes AppStyle the application's style, once per process, before any window is built.
void installAppStyle();
