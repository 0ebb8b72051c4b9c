#include "platform/InstanceFolder.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace {
// Why the folder cannot be trusted; nothing when it can.
std::optional<QString> distrust(const struct stat &info)
{
    if (!S_ISDIR(info.st_mode))
        return QStringLiteral("it is not a folder");
    if (info.st_uid != ::geteuid())
        return QStringLiteral("it belongs to another account");
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return QStringLiteral("other accounts may enter it");
    return std::nullopt;
}

void warnPassedOver(const QString &folder, const QString &why)
{
    qWarning("Veldspar does not look for its running copy in %s: %s.", qPrintable(QDir::toNativeSeparators(folder)),
             qPrintable(why));
}

// The folder when it exists and can be trusted; a missing one is passed over without a word.
bool usable(const QString &folder)
{
    struct stat info;
    if (::lstat(QFile::encodeName(folder).constData(), &info) != 0) {
        if (errno != ENOENT)
            warnPassedOver(folder, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    if (const std::optional<QString> why = distrust(info)) {
        warnPassedOver(folder, *why);
        return false;
    }
    return true;
}
} // namespace

QString instanceFolder(const QString &root)
{
    const QString base = QDir::cleanPath(root);
    const QString uid = QString::number(::geteuid());
    const QString runtime = QDir::cleanPath(base + QStringLiteral("/run/user/") + uid);
    if (usable(runtime))
        return runtime;
    const QString own = QDir::cleanPath(base + QStringLiteral("/tmp/org.kestrum.Veldspar.configure-") + uid);
    // Made 0700 here, or found; found, it is checked like the runtime folder and never changed.
    if (::mkdir(QFile::encodeName(own).constData(), S_IRWXU) != 0 && errno != EEXIST) {
        warnPassedOver(own, QString::fromLocal8Bit(std::strerror(errno)));
        return QString();
    }
    return usable(own) ? own : QString();
}
