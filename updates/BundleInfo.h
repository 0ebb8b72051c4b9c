#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <optional>

// What a bundle's Resources/Info.plist says about it and about its updates.
struct BundleInfo
{
    QString path;         // the bundle folder
    QString identifier;   // CFBundleIdentifier
    QString version;      // CFBundleVersion: what updates are compared with
    QString shortVersion; // CFBundleShortVersionString, else CFBundleVersion: what users see
    QString name;         // CFBundleName, else "Veldspar"
    QString executable;   // CFBundleExecutable, else "Veldspar"
    QVariantMap properties;

    // The update settings, raw; see UpdaterConfiguration for their checked form.
    std::optional<QString> feedUrl;               // SUFeedURL
    std::optional<QString> publicEdKey;           // SUPublicEDKey
    std::optional<bool> enableAutomaticChecks;    // SUEnableAutomaticChecks
    std::optional<qint64> scheduledCheckInterval; // SUScheduledCheckInterval, seconds

    QString infoPlistPath() const { return path + QStringLiteral("/Resources/Info.plist"); }
    QString executablePath() const { return path + u'/' + executable; }
};

// The largest Info.plist a bundle may have (ours is about 2 KB).
inline constexpr qint64 largestInfoPlist = 256 * 1024;

// Reads the bundle's Info.plist; throws Error when it is missing, unreadable, not a regular
// file, over largestInfoPlist, not a property list, or has no CFBundleIdentifier or CFBundleVersion.
BundleInfo readBundleInfo(const QString &bundlePath);
// The same from the bytes of the bundle's Info.plist, already read.
BundleInfo bundleInfoFromPropertyList(const QString &bundlePath, const QByteArray &infoPlist);

constexpr qint64 defaultCheckInterval = 86400;
constexpr qint64 minimumCheckInterval = 3600;

// The interval a setting asks for: absent or negative → 86400, 0 → never, else at least 3600.
qint64 normalizedCheckInterval(std::optional<qint64> seconds);
