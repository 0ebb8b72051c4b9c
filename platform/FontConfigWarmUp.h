#pragma once

#include <thread>

// Reads the system's font configuration on a thread of its own while the application starts.
// Parsing fontconfig's files and caches takes milliseconds that the first text measurement
// would otherwise spend on the main thread, before the window can be laid out. Whoever reads
// fonts later finds the configuration loaded (or loads it too: fontconfig keeps one either
// way). The thread is joined when this goes, so it never outlives main().
class FontConfigWarmUp
{
public:
    FontConfigWarmUp();
    ~FontConfigWarmUp();

    FontConfigWarmUp(const FontConfigWarmUp &) = delete;
    FontConfigWarmUp &operator=(const FontConfigWarmUp &) = delete;

private:
    std::thread m_thread;
};
