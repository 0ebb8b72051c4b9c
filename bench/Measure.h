#pragma once

#include <sys/resource.h>

// The process's peak resident memory so far, in MiB.
inline double peakResidentMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}
