#pragma once

#include <QString>

// ~/.local/share/Veldspar: config.json, service-action.log and the installed service.
QString supportFolder();
// The service's configuration file in the support folder.
QString configFilePath();
// The service executable as installed in the support folder.
QString installedServicePath();
// Where the running service publishes its live state: $XDG_RUNTIME_DIR/Veldspar/state.json
// while the session's runtime folder is private to this user, else state.json in the support
// folder. The service decides alike.
QString liveStateFilePath();
// The app's own cache folder: ~/.cache/org.kestrum.Veldspar.configure (removed at uninstall).
QString cacheFolder();
// The systemd user unit file of a service label: ~/.config/systemd/user/<label>.service.
QString userUnitFilePath(const QString &label);
// The app's settings store: ~/.config/<identifier>.conf.
QString settingsFilePath(const QString &identifier);
