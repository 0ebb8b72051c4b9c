// The app around an update swap, for the tests of a crash at each step of it.
//   swap-crash-probe swap <installed> <staged> <step> exchange|fallback
//     swaps with the real code, and kills itself once <step> is done ("removing": halfway
//     through deleting the old bundle, "none": not at all); "fallback" makes the exchange
//     unsupported, as on a filesystem without it.
//   <bundle>/Veldspar start   (a copy of this program as a bundle's executable)
//     runs the app's start-up recovery, then prints the bundle it runs from.

#include "platform/Bundle.h"
#include "updates/BundleSwap.h"
#include "updates/StartUpRecovery.h"
#include "updates/UpdateErrors.h"

#include <QCoreApplication>
#include <QFile>
#include <QMap>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {
[[noreturn]] void crash()
{
    std::raise(SIGKILL);
    std::_Exit(99); // not reached
}

int swap(const QStringList &arguments)
{
    const QString step = arguments.value(4);
    const QMap<QString, SwapStep> steps{{QStringLiteral("UpdateBeside"), SwapStep::UpdateBeside},
                                        {QStringLiteral("Exchanged"), SwapStep::Exchanged},
                                        {QStringLiteral("InstalledAside"), SwapStep::InstalledAside},
                                        {QStringLiteral("UpdateIn"), SwapStep::UpdateIn},
                                        {QStringLiteral("OldRemoved"), SwapStep::OldRemoved}};
    if (!steps.contains(step) && step != QStringLiteral("removing") && step != QStringLiteral("none"))
        return 2;
    SwapOperations operations = systemSwapOperations();
    if (arguments.value(5) == QStringLiteral("fallback"))
        operations.exchange = [](const QString &, const QString &) { return EINVAL; };
    bool swapped = false;
    const auto remove = operations.remove;
    operations.remove = [&](const QString &path) {
        if (swapped && step == QStringLiteral("removing")) {
            // Files go one by one: the crash comes when some are gone.
            QFile::remove(path + QStringLiteral("/Resources/Info.plist"));
            QFile::remove(path + QStringLiteral("/Veldspar"));
            crash();
        }
        return remove(path);
    };
    operations.stepDone = [&](SwapStep done) {
        swapped = done == SwapStep::Exchanged || done == SwapStep::UpdateIn;
        if (steps.value(step, SwapStep(-1)) == done)
            crash();
    };
    try {
        swapBundles(arguments.value(2), arguments.value(3), operations);
    } catch (const Error &error) {
        std::fprintf(stderr, "%s\n", qPrintable(error.localizedDescription()));
        return 1;
    }
    return 0;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == QStringLiteral("swap"))
        return swap(arguments);
    if (arguments.value(1) != QStringLiteral("start"))
        return 2;
    recoverBundleAtStartUp(argv);
    std::printf("%s\n", qPrintable(bundleLocation()));
    return 0;
}
