#pragma once

#include <QDBusConnection>
#include <QString>

// The user's own message bus, where systemd's user manager answers:
// $DBUS_SESSION_BUS_ADDRESS when set, else unix:path=$XDG_RUNTIME_DIR/bus; empty when neither
// is known. Read anew each time, so a connection made later follows the environment.
QString userBusAddress();

// Whether the user bus is plainly not there: its address is one Unix socket path and nothing
// exists at that path. Anything else counts as there, to be found out by connecting. Cheap,
// never blocks on the bus.
bool userBusIsMissing();

// The app's one connection to the user bus. Made on first use and made again once it is gone
// (the bus restarted, the session ended), reading the address then. When it cannot be made
// the answer is not connected and the next call tries again. Connecting blocks until the bus
// answers: background threads only. Safe from any thread. *generation, when asked, is that of
// the connection returned, as currentUserBus() tells it.
QDBusConnection userBus(quint64 *generation = nullptr);

// The connection as it is, never (re)made: for the main thread. Not connected when none is.
// *generation, when asked, tells this connection from every earlier one, so that whoever
// registered something on an old one can do it again.
QDBusConnection currentUserBus(quint64 *generation = nullptr);

// Closes the connection; the next userBus() makes a new one.
void disconnectUserBus();
