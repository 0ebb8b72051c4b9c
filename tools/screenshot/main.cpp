// Opens the real application, waits until its window is on screen, saves the window's pixels
// as a PNG and quits. Used under Xvfb by "make screenshot".
//
//   screenshot BUNDLE OUTPUT.png [--wait MS]

#include "app/AppDelegate.h"
#include "platform/Bundle.h"

#include <QApplication>
#include <QMainWindow>
#include <QScreen>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.size() < 2) {
        std::fprintf(stderr, "usage: screenshot BUNDLE OUTPUT.png [--wait MS]\n");
        return 2;
    }
    // The tool lives outside the bundle, so it points the app at the bundle's resources.
    setBundleLocationForTesting(arguments.takeFirst());
    const QString output = arguments.takeFirst();
    int waitMs = 1500;
    if (arguments.size() == 2 && arguments.first() == QStringLiteral("--wait"))
        waitMs = arguments.last().toInt();

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();

    int status = 1;
    QTimer::singleShot(waitMs, &application, [&] {
        QMainWindow *window = delegate.mainWindow();
        const QRect frame = window->frameGeometry();
        const QPixmap shot = window->screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
        if (shot.save(output)) {
            status = 0;
            std::printf("Saved %s (%dx%d)\n", qPrintable(output), shot.width(), shot.height());
        } else {
            std::fprintf(stderr, "Cannot save %s\n", qPrintable(output));
        }
        QCoreApplication::quit();
    });
    QApplication::exec();
    return status;
}
