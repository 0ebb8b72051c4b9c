#pragma once

#include <QString>

// Whether the user's session bus answers, asked once per process on a thread of its own.
// Qt connects to the session bus on the main thread, with no time-out, when the first menu bar
// looks for a global menu and when the first widget tells the accessibility bridge about
// itself; a stopped or silent bus would keep the window from ever appearing.

// Starts the check, beside the application's own start; a second call does nothing.
void checkSessionBusInBackground();

// Waits at most waitMs for the check's word (starting it when nobody has). A bus that has not
// answered by then is hidden from Qt for the rest of the run: its address is replaced by one
// Qt gives up on at once, and userBusAddress() keeps telling the real one.
void keepQtOffASilentSessionBus(int waitMs);

// The session bus address as the app was started with it, when keepQtOffASilentSessionBus()
// has replaced it; empty otherwise.
QString hiddenSessionBusAddress();
