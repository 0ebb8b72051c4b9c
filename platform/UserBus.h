#pragma once

#include <QDBusConnection>
#include <QString>

// The user's own message bus, where systemd's user manager answers:
// $DBUS_SESSION_BUS_ADDRESS when set, else unix:path=$XDG_RUNTIME_DIR/bus; empty when neither
// is known. Read anew each time, so a connection made later follows the environment.
QString userBusAddress();

// The app's one connection to the user bus. Made on first use and made again once it is gone
// (the bus restarted, the session ended), reading the address then. When it cannot be made
// the answer is not connected and the next call tries again. *made says whether this call
// made it, so that whoever registered something on the old one can do it again. Connecting
// blocks until the bus answers: background threads only. Safe from any thread.
QDBusConnection userBus(bool *made = nullptr);

// The connection as it is, never (re)made: for the main thread. Not connected when none is.
// *generation, when asked, tells this connection from every earlier one.
QDBusConnection currentUserBus(quint64 *generation = nullptr);

// Closes the connection; the next userBus() makes a new one.
void disconnectUserBus();
