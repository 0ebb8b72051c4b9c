#pragma once

#include <QString>

// Where the symbolic links of an unpacked tree lead. Paths are relative to root, with "/"
// between their parts; root's own path is taken as it is (the caller resolves it).

enum class LinkReach {
    Inside,           // stays within the top-level folder that holds the link
    OutsideItsFolder, // leaves that folder, but not root
    OutsideRoot,      // leaves root, or is absolute
    Unresolvable,     // more links in a row than the system would follow
};

// Follows the link at `link` through the links on disk, part by part, as the system would,
// without ever looking outside root. Parts that do not exist (yet) are taken as written. A
// link directly in root belongs to root.
LinkReach linkReach(const QString &root, const QString &link);

// The first existing link among the parts of `relative`, itself included; empty when none.
QString firstLinkOnPath(const QString &root, const QString &relative);
