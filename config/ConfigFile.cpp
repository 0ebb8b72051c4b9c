#include "config/ConfigFile.h"

#include "config/ConfigDocument.h"
#include "config/ExactValues.h"
#include "platform/ConfigurationLimit.h"
#include "platform/Error.h"

#include <QFile>
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
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw Error::fromFile(file, path);
    const QByteArray bytes = file.read(largestConfigurationFile + 1);
    if (file.error() != QFileDevice::NoError)
        throw Error::fromFile(file, path);
    if (bytes.size() > largestConfigurationFile)
        throw fileError(QFileDevice::ReadError, path,
                        QStringLiteral("The file is larger than %1 MB, too large for a radio configuration")
                            .arg(largestConfigurationFile / (1024 * 1024)));
    // Taken in, the file would be rewritten through Qt's JSON classes: a value they cannot hold
    // would change on the way, so the file is refused instead, as a save would be.
    if (const std::optional<InexactValue> inexact = firstInexactValue(QString::fromUtf8(bytes)))
        throw Error::withMessage(inexactValueMessage(*inexact, QFileInfo(path).fileName()));
    return parseConfiguration(bytes);
}
