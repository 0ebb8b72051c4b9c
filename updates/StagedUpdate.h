#pragma once

#include "updates/Appcast.h"
#include "updates/BundleInfo.h"

#include <QByteArray>
#include <QFile>
#include <QString>

// The bundle folder an update archive must hold at its top.
extern const QString updateBundleName; // "Veldspar.app"

// Before downloading: the item has a download, a length and a well-formed signature.
void checkEnclosure(const AppcastItem &item);

// The downloaded file has exactly the feed's length and carries the feed's Ed25519 signature
// by the installed bundle's key; it is read in blocks, so its size costs no memory. Throws
// Error naming what differs.
void verifyArchive(QFile &archive, const AppcastItem &item, const QByteArray &publicKey);

// The unpacked Veldspar.app may replace the installed bundle: same identifier, a newer
// version, an update key of its own and its executable. Returns its path; throws Error.
QString validateStagedBundle(const QString &extractedFolder, const BundleInfo &installed);

// Verifies the downloaded archive, unpacks it into extractedFolder and validates the result,
// reading the file through one descriptor from the check to the unpacking. Blocking: runs in the background. Returns the staged bundle's path.
QString stageUpdate(const QString &archivePath, const QString &extractedFolder, const AppcastItem &item,
                    const QByteArray &publicKey, const BundleInfo &installed);
