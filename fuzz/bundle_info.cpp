// The checks on top of a bundle's Info.plist (its parser has a harness of its own): what the
// updater takes from the installed bundle's, and what it demands of an update's. Any text
// gives a bundle with an identifier and a version, or an Error that says why; the update
// settings, once accepted, are usable as they stand.

#include "FuzzSupport.h"

#include "platform/Error.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/Fetch.h"
#include "updates/Signature.h"
#include "updates/VersionComparator.h"

namespace {
const QString bundlePath = QStringLiteral("/opt/Veldspar.app");

bool isTrimmed(const QString &text)
{
    return text == text.trimmed();
}

void checkUpdaterConfiguration(const BundleInfo &bundle, const QString &text)
{
    UpdaterConfiguration configuration;
    try {
        configuration = updaterConfiguration(bundle);
    } catch (const Error &error) {
        expectThat(!error.localizedDescription().isEmpty(), "refused update settings say why",
                   [&] { return QString(text); });
        return;
    }
    expectThat(configuration.feedUrl.isValid() && !configuration.feedUrl.isRelative(), "the feed is a full, valid URL",
               [&] { return QString(configuration.feedUrl.toString()); });
    expectThat(!insecureUrlReason(configuration.feedUrl), "the feed is reached safely",
               [&] { return QString(configuration.feedUrl.toString()); });
    expectThat(configuration.publicKey.size() == ed25519PublicKeyBytes, "the update key has 32 bytes",
               [&] { return QString(text); });
    expectThat(configuration.publicKey == decodePublicEdKey(*bundle.publicEdKey), "the update key is the one given",
               [&] { return QString(text); });
    const qint64 interval = configuration.checkInterval;
    expectThat(interval == 0 || interval >= minimumCheckInterval, "checks are never more often than hourly",
               [&] { return QString(QString::number(interval)); });
    if (!bundle.scheduledCheckInterval || *bundle.scheduledCheckInterval < 0)
        expectThat(interval == defaultCheckInterval, "no interval, or a negative one, checks daily",
                   [&] { return QString(QString::number(interval)); });
    expectThat(configuration.enableAutomaticChecks == bundle.enableAutomaticChecks,
               "the automatic checks setting is kept", [&] { return QString(text); });
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    const QString text = QString::fromUtf8(bytes.left(2000));
    BundleInfo bundle;
    try {
        bundle = bundleInfoFromPropertyList(bundlePath, bytes);
    } catch (const Error &error) {
        expectThat(!error.localizedDescription().isEmpty(), "a refused Info.plist says why",
                   [&] { return QString(text); });
        return 0;
    }
    expect(bundle.path == bundlePath, "the bundle is where it was read from");
    expectThat(!bundle.identifier.isEmpty() && isTrimmed(bundle.identifier),
               "a bundle has an identifier, without blanks", [&] { return QString(bundle.identifier); });
    expectThat(!bundle.version.isEmpty() && isTrimmed(bundle.version), "a bundle has a version, without blanks",
               [&] { return QString(bundle.version); });
    expectThat(!bundle.shortVersion.isEmpty() && isTrimmed(bundle.shortVersion),
               "what users see of the version is there", [&] { return QString(bundle.shortVersion); });
    expect(bundle.infoPlistPath().startsWith(bundlePath + u'/'), "Info.plist is inside the bundle");
    // An update with the same Info.plist is never newer than the bundle itself.
    expectThat(!isNewerVersion(bundle.version, bundle.version), "a version is not newer than itself",
               [&] { return QString(bundle.version); });
    checkUpdaterConfiguration(bundle, text);
    return 0;
}
