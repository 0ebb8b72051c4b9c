#include "daemon/Discover.h"
#include "daemon/Import.h"
#include "daemon/Log.h"
#include "daemon/Options.h"
#include "daemon/Service.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"Veldspar"_s);
    // Radios and beacons are reached directly. Asking the desktop's proxy settings would start
    // a thread at the first socket, which aborts the process when no file is left for it.
    QNetworkProxyFactory::setUseSystemConfiguration(false);
    const Options options = parseOptions(QCoreApplication::arguments());
    switch (options.mode) {
    case Options::Mode::Discover:
        return runDiscovery(options.address);
    case Options::Mode::Import:
        return runImport(options.configPath, options.importFile);
    case Options::Mode::Service: {
        ServiceSettings settings;
        settings.configPath = options.configPath;
        settings.destinations = options.broadcast;
        if (options.checkPeriodMs > 0)
            settings.keepAliveMs = options.checkPeriodMs;
        return runService(settings);
    }
    case Options::Mode::Help:
        printLine(options.help.trimmed());
        return 0;
    case Options::Mode::Invalid:
        break;
    }
    logLine(options.problem);
    logLine(u"Run \"Veldspar --help\" for how to use it."_s);
    return 2;
}
