#include "daemon/StopSignals.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {
int signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}
} // namespace

StopSignals::StopSignals(std::function<void(int)> stop, QObject *parent) : QObject(parent), m_stop(std::move(stop))
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    m_notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        if (::read(signalPipe[0], &byte, 1) == 1)
            m_stop(byte);
    });
    struct sigaction action{};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

StopSignals::~StopSignals()
{
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    delete m_notifier;
    for (int &fd : signalPipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}
