#include "updates/StagedUpdate.h"

#include "updates/Archive.h"
#include "updates/Signature.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/UpdateErrors.h"
#include "updates/VersionComparator.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

const QString updateBundleName = QStringLiteral("Veldspar.app");

void checkEnclosure(const AppcastItem &item)
{
    const QString version = item.versionLabel();
    if (!item.enclosure)
        throw updateError(UpdateErrorCode::InvalidFeed,
                          QStringLiteral("The feed gives no download for version %1.").arg(version));
    if (item.enclosure->length <= 0)
        throw updateError(UpdateErrorCode::LengthMismatch,
                          QStringLiteral("The feed gives no length for the download of version %1, so it cannot be "
                                         "verified.")
                              .arg(version));
    if (!item.enclosure->edSignature)
        throw updateError(UpdateErrorCode::SignatureInvalid,
                          QStringLiteral("The feed gives no EdDSA signature (sparkle:edSignature) for version %1, so "
                                         "it cannot be verified.")
                              .arg(version));
    QString problem;
    if (!decodeSignature(*item.enclosure->edSignature, &problem))
        throw updateError(UpdateErrorCode::SignatureInvalid,
                          QStringLiteral("The EdDSA signature (sparkle:edSignature) the feed gives for version %1 is "
                                         "malformed: %2.")
                              .arg(version, problem));
}

void verifyArchive(QFile &archive, const AppcastItem &item, const QByteArray &publicKey)
{
    checkEnclosure(item);
    const QString version = item.versionLabel();
    if (archive.size() != item.enclosure->length)
        throw updateError(UpdateErrorCode::LengthMismatch,
                          QStringLiteral("The feed states that the update %1 is %2 bytes long, but %3 bytes were "
                                         "received.")
                              .arg(version)
                              .arg(item.enclosure->length)
                              .arg(archive.size()));
    const auto unreadable = [&archive] {
        return updateError(UpdateErrorCode::DownloadFailed, QStringLiteral("The downloaded update cannot be read: %1: %2.")
                                                                .arg(archive.fileName(), archive.errorString()));
    };
    if (!archive.seek(0))
        throw unreadable();
    Ed25519Verifier verifier(*decodeSignature(*item.enclosure->edSignature), publicKey);
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 read = archive.read(block.data(), block.size());
        if (read < 0)
            throw unreadable();
        if (read == 0)
            break;
        verifier.add(QByteArrayView(block.constData(), read));
    }
    if (!verifier.matches())
        throw updateError(UpdateErrorCode::SignatureInvalid,
                          QStringLiteral("The download of version %1 does not match its EdDSA signature: it was "
                                         "changed after signing, or signed with a key other than this app's "
                                         "SUPublicEDKey.")
                              .arg(version));
}

QString validateStagedBundle(const QString &extractedFolder, const BundleInfo &installed)
{
    const QString staged = extractedFolder + u'/' + updateBundleName;
    if (!QFileInfo(staged).isDir() || QFileInfo(staged).isSymLink())
        throw updateError(UpdateErrorCode::InvalidUpdate,
                          QStringLiteral("The update archive does not contain the folder %1.").arg(updateBundleName));
    BundleInfo update = [&] {
        try {
            return readBundleInfo(staged);
        } catch (const Error &error) {
            throw updateError(UpdateErrorCode::InvalidUpdate,
                              QStringLiteral("The %1 in the update archive is not valid: %2")
                                  .arg(updateBundleName, error.localizedDescription()));
        }
    }();
    if (update.identifier != installed.identifier)
        throw updateError(UpdateErrorCode::InvalidUpdate,
                          QStringLiteral("The update is for the application %1, not %2 (CFBundleIdentifier).")
                              .arg(update.identifier, installed.identifier));
    if (!isNewerVersion(update.version, installed.version))
        throw updateError(UpdateErrorCode::Downgrade,
                          QStringLiteral("The update's version %1 (CFBundleVersion) is not newer than the installed "
                                         "version %2.")
                              .arg(update.version, installed.version));
    if (!update.publicEdKey)
        throw updateError(UpdateErrorCode::InvalidUpdate,
                          QStringLiteral("The update has no update key (SUPublicEDKey), so it could never be updated "
                                         "again."));
    try {
        decodePublicEdKey(*update.publicEdKey);
    } catch (const Error &error) {
        throw updateError(UpdateErrorCode::InvalidUpdate,
                          QStringLiteral("The update cannot be installed: %1").arg(error.localizedDescription()));
    }
    const QFileInfo executable(update.executablePath());
    if (!executable.isFile() || !executable.isExecutable())
        throw updateError(UpdateErrorCode::InvalidUpdate,
                          QStringLiteral("The update has no executable %1.").arg(update.executable));
    return staged;
}

QString stageUpdate(const QString &archivePath, const QString &extractedFolder, const AppcastItem &item,
                    const QByteArray &publicKey, const BundleInfo &installed)
{
    QFile file(archivePath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        throw updateError(UpdateErrorCode::DownloadFailed,
                          QStringLiteral("The downloaded update cannot be read: %1: %2.").arg(archivePath, file.errorString()));
    verifyArchive(file, item, publicKey);
    if (!QDir().mkpath(extractedFolder))
        throw updateError(UpdateErrorCode::ExtractionFailed,
                          QStringLiteral("The folder %1 cannot be created.").arg(extractedFolder));
    extractArchive(file, extractedFolder);
    return validateStagedBundle(extractedFolder, installed);
}
