#pragma once

#include <QString>
#include <QStringList>

// Only a bundle named exactly "Veldspar.app" is removed; a copy under another name is not.
bool isInstalledAppLocation(const QString &bundleLocation);

// The app's and the legacy service's data, and what the installer adds to the desktop (launcher
// entry, icon, AppStream description), relative to the home folder, in removal order.
const QStringList &uninstallDataPaths();

// The settings stores cleared before the data is removed.
const QStringList &settingsIdentifiers();

// Removes every data path that exists under home; returns those that could not be removed,
// as relative paths in table order.
QStringList removeUninstallData(const QString &home);

// A fresh name for the app in the Trash, so an earlier trashed copy never blocks the move.
QString trashedAppName();

// The privileged move, as an argument vector for pkexec: no shell, so no quoting can go wrong,
// and "-n" never overwrites anything.
QStringList privilegedMoveArguments(const QString &app, const QString &destination);
