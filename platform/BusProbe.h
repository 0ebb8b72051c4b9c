#pragma once

#include <QString>

class QDeadlineTimer;

// Whether a D-Bus endpoint answers, asked over a socket of our own with a deadline. Qt's D-Bus
// connects on its one D-Bus thread with no time-out: a bus that never answers (a stopped
// daemon, one that authenticates and then says nothing) holds that thread, every connection
// asked for after it, and at exit the process itself. An address is tried here first.
enum class BusAnswer {
    Answered, // the endpoint authenticated this user (and, for a bus, answered Hello)
    Silent,   // nothing there, refused, or no answer before the deadline
    Unknown,  // a kind of address this probe does not speak (tcp:, autolaunch: …)
};

enum class BusKind {
    MessageBus, // a bus daemon: asked to authenticate and to say Hello
    Peer,       // a peer such as systemd's own socket: asked to authenticate
};

// Tries each address of the list in turn (unix:path= and unix:abstract=), as libdbus does: the
// first one that takes the connection decides.
BusAnswer probeBus(const QString &address, BusKind kind, const QDeadlineTimer &deadline);
