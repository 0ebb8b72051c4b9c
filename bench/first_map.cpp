// Start-up as the X server sees it, the same for any program: from its start to the first map
// of a top-level window, with its peak memory at that moment and over its first seconds.
//
//   first_map SECONDS PROGRAM [ARGUMENT...]
//
// Prints "first map T ms, peak at map M MiB, peak after S s P MiB". The program is ended
// SECONDS after its map (a program that quits by itself is simply waited for).

#include <xcb/xcb.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
double nowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1e6;
}

// VmHWM of a running process, in MiB; 0 once it is gone.
double peakOf(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0)
            return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
    return 0;
}

bool waitForMap(xcb_connection_t *connection, pid_t child, double deadline)
{
    const int fd = xcb_get_file_descriptor(connection);
    while (nowMs() < deadline) {
        while (xcb_generic_event_t *event = xcb_poll_for_event(connection)) {
            const bool mapped = (event->response_type & 0x7f) == XCB_MAP_NOTIFY;
            std::free(event);
            if (mapped)
                return true;
        }
        if (waitpid(child, nullptr, WNOHANG) == child)
            return false;
        pollfd watched = {fd, POLLIN, 0};
        poll(&watched, 1, 10);
    }
    return false;
}
} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: first_map SECONDS PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    const double lingerMs = std::strtod(argv[1], nullptr) * 1000.0;
    xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        std::fprintf(stderr, "first_map: no X display\n");
        return 1;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(connection);

    const double started = nowMs();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        _exit(127);
    }
    if (!waitForMap(connection, child, started + 30000)) {
        std::fprintf(stderr, "first_map: %s mapped no window\n", argv[2]);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return 1;
    }
    const double mapped = nowMs();
    const double peakAtMap = peakOf(child);

    int status = 0;
    rusage usage{};
    while (nowMs() < mapped + lingerMs && wait4(child, &status, WNOHANG, &usage) == 0)
        usleep(10000);
    if (wait4(child, &status, WNOHANG, &usage) == 0) {
        kill(child, SIGTERM);
        wait4(child, &status, 0, &usage);
    }
    std::printf("first map %.1f ms, peak at map %.1f MiB, peak after %.0f s %.1f MiB\n", mapped - started,
                peakAtMap > 0 ? peakAtMap : double(usage.ru_maxrss) / 1024.0, lingerMs / 1000.0,
                double(usage.ru_maxrss) / 1024.0);
    xcb_disconnect(connection);
    return 0;
}
