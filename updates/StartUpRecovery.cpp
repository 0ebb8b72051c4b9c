#include "updates/StartUpRecovery.h"

#include "platform/Bundle.h"
#include "updates/BundleSwap.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <unistd.h>

void recoverBundleAtStartUp(char *argv[])
{
    const QString started = bundleLocation();
    const QString executableName = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    const QString installed = recoverInterruptedSwap(started);
    if (installed.isEmpty() || installed == started)
        return;
    // This copy's own bundle was put back under the installed name, or was a leftover and is
    // gone: what it would read next is no longer where it started.
    const QByteArray program = QFile::encodeName(installed + u'/' + executableName);
    argv[0] = const_cast<char *>(program.constData());
    ::execv(program.constData(), argv);
    qFatal("Veldspar could not start again from %s: %s", program.constData(), std::strerror(errno));
}
