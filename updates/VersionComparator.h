#pragma once

#include <QString>

// Orders version texts the way update feeds expect: "1.0b1" < "1.0" = "1.0.0" < "1.0.1",
// "1.0a1" < "1.0b1", "1.0b9" < "1.0b10", and everything from the first dash after the start is
// ignored ("1.5.5-abc" = "1.5.5-def"). A total order over all texts, odd ones included, so
// that sorting and choosing the newest are well defined. Returns a negative number, 0 or a
// positive number.
int compareVersions(const QString &a, const QString &b);

inline bool isNewerVersion(const QString &candidate, const QString &current)
{
    return compareVersions(candidate, current) > 0;
}
