#include "app/AppDelegate.h"

#include <QGuiApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QScreen>

void AppDelegate::applicationDidFinishLaunching()
{
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
