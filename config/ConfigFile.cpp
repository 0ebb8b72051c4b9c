#include "config/ConfigFile.h"

#include "config/ConfigDocument.h"
#include "config/ExactValues.h"
#include "platform/ConfigurationLimit.h"
#include "platform/Error.h"
#include "platform/RegularFile.h"

#include <QFileDevice>
#include <QFileInfo>

namespace {
Error fileError(QFileDevice::FileError code, const QString &path, const QString &reason)
{
    return Error(QStringLiteral("QFile"), int(code), {{Error::descriptionKey, QStringLiteral("%1: %2").arg(path, reason)}});
}
} // namespace

QJsonObject readConfigurationFile(const QString &path)
{
    if (QFileInfo(path).isDir())
        throw fileError(QFileDevice::OpenError, path, QStringLiteral("Is a folder, not a file"));
    // Bounded like the start-up read: a pipe or a device picked by mistake is refused, not
    // waited on, and nothing past the limit is taken in.
    const FileContents contents = readRegularFile(path, largestConfigurationFile);
    switch (contents.problem) {
    case FileContents::Problem::None:
        break;
    case FileContents::Problem::Missing:
    case FileContents::Problem::Unreadable:
        throw fileError(QFileDevice::OpenError, path, contents.reason);
    case FileContents::Problem::NotRegular:
        throw fileError(QFileDevice::OpenError, path,
                        QStringLiteral("Not a regular file (a pipe, a device or a socket), so not a radio configuration"));
    case FileContents::Problem::TooLarge:
        throw fileError(QFileDevice::ReadError, path,
                        QStringLiteral("The file is larger than %1 MB, too large for a radio configuration")
                            .arg(largestConfigurationFile / (1024 * 1024)));
    }
    const QByteArray &bytes = contents.bytes;
    // Taken in, the file would be rewritten through Qt's JSON classes: a value they cannot hold
    // would change on the way, so the file is refused instead, as a save would be.
    if (const std::optional<InexactValue> inexact = firstInexactValue(QString::fromUtf8(bytes)))
        throw Error::withMessage(inexactValueMessage(*inexact, QFileInfo(path).fileName()));
    return parseConfiguration(bytes);
}
