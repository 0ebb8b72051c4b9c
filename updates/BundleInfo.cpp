#include "updates/BundleInfo.h"

#include "updates/PropertyList.h"
#include "updates/UpdateErrors.h"

#include "platform/RegularFile.h"

namespace {
std::optional<QString> text(const QVariantMap &properties, const QString &key)
{
    const auto found = properties.constFind(key);
    if (found == properties.constEnd())
        return std::nullopt;
    return found->toString();
}

std::optional<bool> boolean(const QVariantMap &properties, const QString &key)
{
    const auto found = properties.constFind(key);
    if (found == properties.constEnd())
        return std::nullopt;
    if (found->typeId() == QMetaType::Bool)
        return found->toBool();
    // A string "YES"/"NO" or "true"/"false" is a common hand-written form.
    const QString value = found->toString().trimmed().toLower();
    return value == u"yes" || value == u"true" || value == u"1";
}

std::optional<qint64> integer(const QVariantMap &properties, const QString &key)
{
    const auto found = properties.constFind(key);
    if (found == properties.constEnd())
        return std::nullopt;
    bool ok = false;
    const qint64 value = found->toString().trimmed().toLongLong(&ok);
    if (!ok)
        return std::nullopt;
    return value;
}
} // namespace

BundleInfo readBundleInfo(const QString &bundlePath)
{
    BundleInfo located;
    located.path = bundlePath;
    const QString infoPlistPath = located.infoPlistPath();
    // A bundle's own Info.plist is a few kilobytes; the bound keeps a replaced file (a FIFO, a
    // device, a huge file) from stalling or filling the app.
    const FileContents file = readRegularFile(infoPlistPath, largestInfoPlist);
    if (file.problem != FileContents::Problem::None)
        throw updateError(UpdateErrorCode::InvalidConfiguration, file.message);
    return bundleInfoFromPropertyList(bundlePath, file.bytes);
}

BundleInfo bundleInfoFromPropertyList(const QString &bundlePath, const QByteArray &infoPlist)
{
    BundleInfo bundle;
    bundle.path = bundlePath;
    bundle.properties = readPropertyList(infoPlist, bundle.infoPlistPath());
    const QVariantMap &p = bundle.properties;
    bundle.identifier = text(p, QStringLiteral("CFBundleIdentifier")).value_or(QString()).trimmed();
    bundle.version = text(p, QStringLiteral("CFBundleVersion")).value_or(QString()).trimmed();
    if (bundle.identifier.isEmpty() || bundle.version.isEmpty())
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("%1 does not give the bundle's %2.")
                              .arg(bundle.infoPlistPath(),
                                   bundle.identifier.isEmpty() ? QStringLiteral("identifier (CFBundleIdentifier)")
                                                               : QStringLiteral("version (CFBundleVersion)")));
    bundle.shortVersion = text(p, QStringLiteral("CFBundleShortVersionString")).value_or(bundle.version).trimmed();
    if (bundle.shortVersion.isEmpty())
        bundle.shortVersion = bundle.version;
    bundle.name = text(p, QStringLiteral("CFBundleName")).value_or(QStringLiteral("Veldspar"));
    bundle.executable = text(p, QStringLiteral("CFBundleExecutable")).value_or(QStringLiteral("Veldspar"));
    bundle.feedUrl = text(p, QStringLiteral("SUFeedURL"));
    bundle.publicEdKey = text(p, QStringLiteral("SUPublicEDKey"));
    bundle.enableAutomaticChecks = boolean(p, QStringLiteral("SUEnableAutomaticChecks"));
    bundle.scheduledCheckInterval = integer(p, QStringLiteral("SUScheduledCheckInterval"));
    return bundle;
}

qint64 normalizedCheckInterval(std::optional<qint64> seconds)
{
    if (!seconds || *seconds < 0)
        return defaultCheckInterval;
    if (*seconds == 0)
        return 0;
    return qMax(*seconds, minimumCheckInterval);
}
