#include "app/AppDelegate.h"

#include <QGuiApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QScreen>

void AppDelegate::applicationDidFinishLaunching()
{
    // Closing the one window ends the app, whoever created the application object.
    QGuiApplication::setQuitOnLastWindowClosed(applicationShouldTerminateAfterLastWindowClosed());
    QMenuBar *menu = buildMenu();
    makeWindow(menu);
    editor = std::make_unique<Draft>();
    buildViewTree();
    reload();

    if (QScreen *screen = window->screen()) {
        QRect frame = window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window->move(frame.topLeft());
    }
    window->show();
    window->raise();
    window->activateWindow();
}
