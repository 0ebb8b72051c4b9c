#pragma once

#include <QDBusConnection>
#include <QString>

// systemd's user manager, reached where `systemctl --user` reaches it: on the user's session
// bus when the manager owns its name there, else on the manager's own socket
// $XDG_RUNTIME_DIR/systemd/private, a peer connection without a bus daemon. A session started
// with dbus-launch, or a DBUS_SESSION_BUS_ADDRESS naming another bus, has no manager on its bus.

// The user's session bus: $DBUS_SESSION_BUS_ADDRESS when set, else unix:path=$XDG_RUNTIME_DIR/bus;
// empty when neither is known. Read anew each time, so a connection made later follows the
// environment.
QString userBusAddress();

// The manager's own socket: unix:path=$XDG_RUNTIME_DIR/systemd/private; empty without a
// runtime folder.
QString userManagerSocketAddress();

// Whether the manager is plainly not to be reached: neither the bus nor the manager's socket is
// there (an address that is one Unix socket path with nothing at that path, or no address).
// Anything else counts as there, to be found out by connecting. Cheap, never blocks.
bool userManagerIsMissing();

// Longest wait for one answer on the connection, the question whether the manager is on the bus
// included.
constexpr int userManagerCallTimeoutMs = 4000;

// The app's one connection to the manager. Made on first use and made again once it is gone
// (the bus restarted, the manager re-executed, the session ended), reading the addresses then.
// When it cannot be made the answer is not connected and the next call tries again. Connecting
// blocks until the other end answers: background threads only. Safe from any thread.
// *generation, when asked, is that of the connection returned, as currentUserManager() tells it.
QDBusConnection userManager(quint64 *generation = nullptr);

// The connection as it is, never (re)made: for the main thread. Not connected when none is.
// *generation, when asked, tells this connection from every earlier one, so that whoever
// registered something on an old one can do it again.
QDBusConnection currentUserManager(quint64 *generation = nullptr);

// Closes the connection; the next userManager() makes a new one.
void disconnectUserManager();
