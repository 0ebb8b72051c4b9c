#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

struct ProcessResult
{
    int exitCode = 0;
    bool crashed = false;
    QByteArray output; // standard output and standard error, interleaved as written

    bool succeeded() const { return !crashed && exitCode == 0; }
    // Output decoded as UTF-8 with malformed sequences replaced, never rejected.
    QString text() const { return QString::fromUtf8(output); }
};

// What becomes of the child when the app ends first.
enum class ChildLifetime {
    Independent, // it finishes its work (an import, a privileged move)
    EndsWithApp, // it gets SIGTERM, at a quit or a crash alike (a probe nobody will read)
};

// Runs a program with an argument vector (no shell) and waits for it to end, however long
// that takes: no time-out, no kill while the app runs. Throws Error when the program cannot be
// started. Blocks the calling thread; call it from background work only, except where a caller
// deliberately waits on the main thread.
ProcessResult runProcess(const QString &program, const QStringList &arguments,
                         ChildLifetime lifetime = ChildLifetime::Independent);

// Whether a process with this id exists (of any user); false for ids that cannot be one.
bool processExists(qint64 pid);
