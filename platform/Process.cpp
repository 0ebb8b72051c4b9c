#include "platform/Process.h"

#include "platform/Error.h"

#include <QProcess>

ProcessResult runProcess(const QString &program, const QStringList &arguments)
{
    QProcess process;
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
