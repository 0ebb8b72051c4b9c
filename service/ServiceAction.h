#pragma once

#include <QString>

// One run of the service-management script.
struct ServiceActionResult
{
    QString action;
    bool ok = false;
    QString output; // what to show and log on failure
};

// Runs "/bin/bash <script> <action>" and waits for it. Blocks: background only.
ServiceActionResult runServiceAction(const QString &script, const QString &action);

// The status line after an action; every word but enable and disable reads "Service removed".
QString serviceActionStatus(const QString &action, bool ok);

// Whether the service installed in the support folder differs from the bundle's copy while
// it is set up to start at login; only then is an update offered.
bool installedServiceIsOutdated(const QString &bundledService);
