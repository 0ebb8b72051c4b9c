#include "daemon/Discover.h"
#include "daemon/Import.h"
#include "daemon/Log.h"
#include "daemon/Options.h"
#include "daemon/Service.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"Veldspar"_s);
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
