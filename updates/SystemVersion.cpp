#include "updates/SystemVersion.h"

#include <sys/utsname.h>

QString systemVersion()
{
    utsname name{};
    if (uname(&name) != 0)
        return QString();
    return QString::fromLocal8Bit(name.release);
}
