#pragma once

#include "platform/Error.h"

// The updater's own failures share one domain; the code says which step refused.
enum class UpdateErrorCode {
    InvalidConfiguration = 1, // Info.plist lacks or garbles an update setting
    InsecureLink = 2,         // a link that is neither https nor loopback http
    FeedUnavailable = 3,      // the feed could not be fetched
    InvalidFeed = 4,          // the feed is not a readable update feed
    DownloadFailed = 5,       // the archive could not be fetched
    LengthMismatch = 6,       // the archive's size differs from the feed's length
    SignatureInvalid = 7,     // missing, malformed or wrong EdDSA signature
    ExtractionFailed = 8,     // the archive could not be unpacked
    InvalidUpdate = 9,        // the unpacked bundle is not an acceptable update
    Downgrade = 10,           // the unpacked bundle is not newer than the installed one
    NotWritable = 11,         // the bundle's folder cannot be changed
    InstallationFailed = 12,  // the swap of the bundles failed and was rolled back
};

extern const QString updateErrorDomain; // "org.kestrum.Veldspar.updates"

Error updateError(UpdateErrorCode code, const QString &message);
