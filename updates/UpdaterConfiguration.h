#pragma once

#include "updates/BundleInfo.h"

#include <QByteArray>
#include <QUrl>

#include <optional>

// The update settings, checked: what the updater needs before it can start.
struct UpdaterConfiguration
{
    QUrl feedUrl;
    QByteArray publicKey; // 32 bytes
    std::optional<bool> enableAutomaticChecks;
    qint64 checkInterval = defaultCheckInterval; // seconds; 0 = never
};

// Throws Error with a message naming the setting when SUFeedURL is missing or neither https
// nor loopback http, or SUPublicEDKey is missing or not the base64 text of 32 bytes.
UpdaterConfiguration updaterConfiguration(const BundleInfo &bundle);

// Decodes SUPublicEDKey; throws Error saying what is wrong with it.
QByteArray decodePublicEdKey(const QString &base64);
