#include "updates/UnpackedLinks.h"

#include <QFile>
#include <QStringList>

#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// The limit Linux applies to links followed in one lookup.
constexpr int mostLinksFollowed = 40;

bool isLink(const QString &path)
{
    struct stat status{};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISLNK(status.st_mode);
}

// The link's target as stored; empty when it cannot be read.
QString linkTarget(const QString &path)
{
    char target[PATH_MAX];
    const ssize_t length = ::readlink(QFile::encodeName(path).constData(), target, sizeof target);
    if (length <= 0 || length >= ssize_t(sizeof target))
        return QString();
    return QFile::decodeName(QByteArray(target, length));
}
} // namespace

LinkReach linkReach(const QString &root, const QString &link)
{
    QStringList place = link.split(u'/', Qt::SkipEmptyParts);
    const bool topLevel = place.size() <= 1;
    QStringList pending{place.takeLast()}; // the link itself is followed first
    bool leftItsFolder = false;
    int followed = 0;
    while (!pending.isEmpty()) {
        const QString part = pending.takeFirst();
        if (part.isEmpty() || part == u".")
            continue;
        if (part == u"..") {
            if (place.isEmpty())
                return LinkReach::OutsideRoot;
            place.removeLast();
            leftItsFolder = leftItsFolder || (!topLevel && place.isEmpty());
            continue;
        }
        place.append(part);
        const QString path = root + u'/' + place.join(u'/');
        if (!isLink(path))
            continue;
        if (++followed > mostLinksFollowed)
            return LinkReach::Unresolvable;
        const QString target = linkTarget(path);
        if (target.isEmpty() || target.startsWith(u'/'))
            return LinkReach::OutsideRoot;
        place.removeLast();
        pending = target.split(u'/') + pending;
    }
    return leftItsFolder ? LinkReach::OutsideItsFolder : LinkReach::Inside;
}

QString firstLinkOnPath(const QString &root, const QString &relative)
{
    const QStringList parts = relative.split(u'/', Qt::SkipEmptyParts);
    for (qsizetype length = 1; length <= parts.size(); ++length) {
        const QString prefix = parts.mid(0, length).join(u'/');
        if (isLink(root + u'/' + prefix))
            return prefix;
    }
    return QString();
}
