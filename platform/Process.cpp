#include "platform/Process.h"

#include "platform/Error.h"

#include <QProcess>

#include <cerrno>
#include <csignal>
#include <limits>
#include <sys/prctl.h>
#include <unistd.h>

namespace {
// The kernel sends the child SIGTERM when its parent goes, however it goes. Strictly it is the
// forking thread whose end sends it; that thread blocks in runProcess until the child ends, so
// it ends no sooner than the app does. Runs in the child between fork and exec.
void endWithThisProcess(QProcess &process)
{
    const pid_t parent = ::getpid();
    process.setChildProcessModifier([parent] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        // The parent may have gone before the request was made; then nothing would come.
        if (::getppid() != parent)
            ::kill(::getpid(), SIGTERM);
    });
}
} // namespace

ProcessResult runProcess(const QString &program, const QStringList &arguments, ChildLifetime lifetime)
{
    QProcess process;
    if (lifetime == ChildLifetime::EndsWithApp)
        endWithThisProcess(process);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments, QIODevice::ReadOnly);
    if (!process.waitForStarted(-1))
        throw Error::fromProcess(process, program);

    // waitForFinished drains the pipe while it waits, so a talkative child never blocks.
    process.waitForFinished(-1);

    ProcessResult result;
    result.output = process.readAll();
    result.crashed = process.exitStatus() == QProcess::CrashExit;
    result.exitCode = process.exitCode();
    return result;
}

bool processExists(qint64 pid)
{
    if (pid <= 0 || pid > std::numeric_limits<pid_t>::max())
        return false;
    // Signal 0 checks without sending; EPERM means it exists but belongs to someone else.
    return ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
}
