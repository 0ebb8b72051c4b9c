#include "platform/SessionBusCheck.h"

#include "platform/BusProbe.h"
#include "platform/UserManager.h"

#include <QDeadlineTimer>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace {
// A bus on this machine answers within milliseconds; this only bounds the thread's life.
constexpr int longestProbeMs = 2000;

struct Check
{
    std::mutex lock;
    std::condition_variable done;
    bool started = false;
    std::optional<bool> answered;
};

// An address libdbus refuses at once, for a transport it does not know.
QString hiddenAddress()
{
    return QStringLiteral("disabled:");
}

// The address replaced, read by the status checks' threads only once it is set.
QString &realAddress()
{
    static QString *address = new QString;
    return *address;
}

// Never destroyed: the thread may still wait for a silent bus when the process ends.
Check &check()
{
    static Check *shared = new Check;
    return *shared;
}
} // namespace

void checkSessionBusInBackground()
{
    Check &state = check();
    {
        const std::lock_guard<std::mutex> locker(state.lock);
        if (std::exchange(state.started, true))
            return;
    }
    // Read now, on the calling thread: the environment is not to be read beside setenv().
    const QString address = userBusAddress();
    std::thread([&state, address] {
        const bool answered = !address.isEmpty()
                              && probeBus(address, BusKind::MessageBus, QDeadlineTimer(longestProbeMs)) == BusAnswer::Answered;
        const std::lock_guard<std::mutex> locker(state.lock);
        state.answered = answered;
        state.done.notify_all();
    }).detach();
}

void keepQtOffASilentSessionBus(int waitMs)
{
    checkSessionBusInBackground();
    Check &state = check();
    {
        std::unique_lock<std::mutex> locker(state.lock);
        state.done.wait_for(locker, std::chrono::milliseconds(waitMs), [&state] { return state.answered.has_value(); });
        if (state.answered.value_or(false))
            return;
    }
    const QString address = userBusAddress();
    if (address.isEmpty() || address == hiddenAddress())
        return;
    qWarning("The session bus does not answer; Veldspar runs without the global menu and accessibility bridge this time.");
    realAddress() = address;
    qputenv("DBUS_SESSION_BUS_ADDRESS", hiddenAddress().toUtf8());
}

QString hiddenSessionBusAddress()
{
    return qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS") == hiddenAddress() ? realAddress() : QString();
}
