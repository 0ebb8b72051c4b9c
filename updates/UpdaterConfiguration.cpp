#include "updates/UpdaterConfiguration.h"

#include "updates/Fetch.h"
#include "updates/Signature.h"
#include "updates/UpdateErrors.h"

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
