#include "updates/Appcast.h"

// Apart from the feed's parser: the update windows show it too.
QString AppcastItem::versionLabel() const
{
    if (displayVersion.isEmpty() || displayVersion == version)
        return version;
    return QStringLiteral("%1 (%2)").arg(displayVersion, version);
}
