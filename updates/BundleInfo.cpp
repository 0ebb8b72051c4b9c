#include "updates/BundleInfo.h"

#include "updates/Fetch.h"
#include "updates/PropertyList.h"
#include "updates/Signature.h"
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

QByteArray decodePublicEdKey(const QString &base64)
{
    const QString trimmed = base64.trimmed();
    const auto decoded = QByteArray::fromBase64Encoding(trimmed.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (trimmed.isEmpty() || !decoded)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("The update key SUPublicEDKey in Info.plist is not valid: \u201c%1\u201d "
                                         "is not base64 text.")
                              .arg(trimmed));
    if (decoded.decoded.size() != ed25519PublicKeyBytes)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("The update key SUPublicEDKey in Info.plist is not valid: an Ed25519 "
                                         "public key has %1 bytes, this one has %2.")
                              .arg(ed25519PublicKeyBytes)
                              .arg(decoded.decoded.size()));
    return decoded.decoded;
}

qint64 normalizedCheckInterval(std::optional<qint64> seconds)
{
    if (!seconds || *seconds < 0)
        return defaultCheckInterval;
    if (*seconds == 0)
        return 0;
    return qMax(*seconds, minimumCheckInterval);
}

UpdaterConfiguration updaterConfiguration(const BundleInfo &bundle)
{
    UpdaterConfiguration configuration;
    const QString feed = bundle.feedUrl.value_or(QString()).trimmed();
    if (feed.isEmpty())
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("Info.plist has no update feed (SUFeedURL)."));
    configuration.feedUrl = QUrl(feed, QUrl::StrictMode);
    if (!configuration.feedUrl.isValid() || configuration.feedUrl.isRelative())
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("The update feed SUFeedURL \u201c%1\u201d in Info.plist is not a valid URL.")
                              .arg(feed));
    if (const auto reason = insecureUrlReason(configuration.feedUrl))
        throw updateError(UpdateErrorCode::InsecureLink,
                          QStringLiteral("The update feed SUFeedURL in Info.plist is refused: %1 %2.")
                              .arg(configuration.feedUrl.toDisplayString(), *reason));
    if (!bundle.publicEdKey)
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("Info.plist has no update key (SUPublicEDKey), so no update could be "
                                         "verified."));
    configuration.publicKey = decodePublicEdKey(*bundle.publicEdKey);
    configuration.enableAutomaticChecks = bundle.enableAutomaticChecks;
    configuration.checkInterval = normalizedCheckInterval(bundle.scheduledCheckInterval);
    return configuration;
}
