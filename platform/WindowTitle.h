#pragma once

class QString;
class QWidget;

// Shows a window's title bar without text. Qt never hands an empty title to the window
// system: it puts the application's name in its place. On X11 the title properties are
// emptied once the window exists; where that cannot be done (Wayland, where the compositor
// owns the title) the application's name stays, the least text the toolkit allows.
void showNoWindowTitle(QWidget *window);

// The title the window system holds for the window, or a null string where it cannot be read
// back (any platform but X11).
QString windowSystemTitle(QWidget *window);
