#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <csignal>
#include <functional>
#include <sys/types.h>

// The service, run as systemd runs it, with its log on standard error; killed if a test
// leaves it running.
class RunningService
{
public:
    RunningService(const QString &configPath, const QStringList &destinations,
                   const std::function<void()> &inChild = {})
    {
        QStringList arguments{QStringLiteral("--config"), configPath};
        for (const QString &destination : destinations)
            arguments << QStringLiteral("--broadcast") << destination;
        m_process.setProgram(QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE));
        m_process.setArguments(arguments);
        if (inChild)
            m_process.setChildProcessModifier(inChild);
        m_process.start();
        m_process.waitForStarted();
    }
    ~RunningService()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }
    RunningService(const RunningService &) = delete;
    RunningService &operator=(const RunningService &) = delete;

    QString log()
    {
        m_log += QString::fromUtf8(m_process.readAllStandardError());
        return m_log;
    }
    QProcess &process() { return m_process; }
    // True when SIGTERM ended it within the bound.
    bool stops()
    {
        ::kill(pid_t(m_process.processId()), SIGTERM);
        return m_process.waitForFinished(5000);
    }

private:
    QProcess m_process;
    QString m_log;
};
