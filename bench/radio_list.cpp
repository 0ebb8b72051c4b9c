// Times refreshRadios (through reload) and a synchronous repaint of the window with 10, 1,000
// and 10,000 radios, and a save of 1,000 radios that need no probe, from save() to the status
// "Saved. …", against the stand-in service executable from tests/fakes.
//
//   radio_list FAKES_DIR SVG

#include "Measure.h"

#include "app/AppDelegate.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"
#include "app/StatusLabel.h"
#include "platform/Bundle.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QListView>
#include <QMainWindow>
#include <QTemporaryDir>
#include <QWindow>

#include <algorithm>
#include <cstdio>

namespace {
QByteArray configOf(int count)
{
    QJsonArray radios;
    for (int i = 0; i < count; ++i)
        radios.append(QJsonObject{
            {QStringLiteral("ipAddress"), QStringLiteral("10.%1.%2.%3").arg(i / 65536).arg(i / 256 % 256).arg(i % 256)},
            {QStringLiteral("serialNumber"), QStringLiteral("1121-1104-%1").arg(i, 9, 10, QLatin1Char('0'))},
            {QStringLiteral("name"), QStringLiteral("Radio %1").arg(i)},
            {QStringLiteral("model"), QStringLiteral("FLEX-6600")},
            {QStringLiteral("callsign"), QStringLiteral("W1AW")},
            {QStringLiteral("version"), QStringLiteral("3.3.32.8203")},
            {QStringLiteral("enabled"), i % 2 == 0},
        });
    return QJsonDocument(QJsonObject{{QStringLiteral("broadcastIntervalMs"), 3000}, {QStringLiteral("radios"), radios}})
        .toJson(QJsonDocument::Indented);
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write %s", qPrintable(path));
    file.write(bytes);
}

double median(QList<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples.at(samples.size() / 2);
}
} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    setUpdateEngineFactory(&veldsparCreateUpdateEngine); // the engine is linked in
    if (argc < 3) {
        std::fprintf(stderr, "usage: radio_list FAKES_DIR SVG\n");
        return 2;
    }
    QTemporaryDir world;
    qputenv("HOME", QFile::encodeName(world.filePath(QStringLiteral("home"))));
    qputenv("TMPDIR", QFile::encodeName(world.path()));
    const QString resources = world.filePath(QStringLiteral("Veldspar.app/Resources"));
    QDir().mkpath(resources);
    QFile::copy(QString::fromLocal8Bit(argv[1]) + QStringLiteral("/Veldspar"), resources + QStringLiteral("/Veldspar"));
    QFile::copy(QString::fromLocal8Bit(argv[2]), resources + QStringLiteral("/Veldspar.svg"));
    setBundleLocationForTesting(world.filePath(QStringLiteral("Veldspar.app")));

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    QMainWindow *window = delegate.mainWindow();
    auto *status = window->findChild<StatusLabel *>(QStringLiteral("status"));
    // A repaint of a window that is not on screen yet paints nothing.
    while (!window->windowHandle() || !window->windowHandle()->isExposed())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);

    for (int count : {10, 1000, 10000}) {
        writeFile(delegate.configPath(), configOf(count));
        QList<double> refresh;
        QList<double> repaint;
        for (int run = 0; run < 7; ++run) {
            QElapsedTimer timer;
            timer.start();
            delegate.reload();
            refresh << timer.nsecsElapsed() / 1e6;
            timer.restart();
            window->repaint();
            repaint << timer.nsecsElapsed() / 1e6;
        }
        std::printf("%6d radios: refreshRadios (reload) %8.2f ms, repaint %6.2f ms, widgets in the list %lld\n", count,
                    median(refresh), median(repaint),
                    qlonglong(window->findChild<QListView *>(QStringLiteral("table"))
                                  ->viewport()
                                  ->findChildren<QWidget *>()
                                  .size()));
    }

    writeFile(delegate.configPath(), configOf(1000));
    QList<double> saves;
    for (int run = 0; run < 5; ++run) {
        delegate.reload();
        QElapsedTimer timer;
        timer.start();
        delegate.save();
        while (!status->text().startsWith(QStringLiteral("Saved.")) || delegate.isBusy())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        saves << timer.nsecsElapsed() / 1e6;
    }
    std::printf("save of 1,000 radios without probes: %.1f ms (median of 5)\n", median(saves));
    std::printf("peak memory %.1f MiB\n", peakResidentMiB());
    return 0;
}
