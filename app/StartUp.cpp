#include "app/AppDelegate.h"

#include "app/AfterFirstFrame.h"
#include "app/AppIcon.h"
#include "app/AppStyle.h"
#include "config/StaleDrafts.h"
#include "platform/Background.h"
#include "platform/SessionBusCheck.h"
#include "service/UnitChanges.h"
#include "updates/EmberlaneUpdates.h"

#include <QGuiApplication>
#include <QIcon>
#include <QMainWindow>
#include <QMenuBar>
#include <QPointer>
#include <QScreen>
#include <QTimer>

namespace {
// The check runs beside the application's start and is usually done long before this.
constexpr int sessionBusWaitMs = 250;
} // namespace

void AppDelegate::applicationDidFinishLaunching()
{
    // Closing the one window ends the app, whoever created the application object.
    QGuiApplication::setQuitOnLastWindowClosed(applicationShouldTerminateAfterLastWindowClosed());

    // The updater outlives the controller, so its gate holds the controller weakly.
    EmberlaneUpdates::shared().blockedReason = [controller = QPointer<AppDelegate>(this)]() -> std::optional<QString> {
        if (!controller || !controller->busy)
            return std::nullopt;
        return QStringLiteral("Wait for the current service or configuration operation to finish.");
    };
    installAppStyle(); // before the first widget, which takes the style in use
    // The first menu bar and the first label make Qt connect to the session bus on this thread,
    // with no time-out.
    keepQtOffASilentSessionBus(sessionBusWaitMs);
    QMenuBar *menu = buildMenu();
    makeWindow(menu);
    editor = std::make_unique<Draft>();
    buildViewTree();

    // systemd's word that a unit changed refreshes at once, between ticks; a check under way
    // drops it like a tick.
    unitChanges = new UnitChanges(this);
    connect(unitChanges, &UnitChanges::changed, this, &AppDelegate::refreshService);
    refreshService();
    serviceTimer = new QTimer(this);
    serviceTimer->setObjectName(QStringLiteral("serviceTimer"));
    serviceTimer->setInterval(3000);
    // Parented to the controller, the tick goes with it; refreshService drops a tick while a
    // check is still running.
    connect(serviceTimer, &QTimer::timeout, this, &AppDelegate::refreshService);
    serviceTimer->start();

    reload();
    watchLiveState();
    // Drafts of a copy that was killed while saving would otherwise stay for ever.
    backgroundPool().start([folders = draftFolders()] { removeStaleDrafts(folders); });

    if (QScreen *screen = window->screen()) {
        QRect frame = window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window->move(frame.topLeft());
    }
    bringWindowForward();
    // Neither the icon, drawn from its SVG, nor the update engine's libraries are needed to
    // draw the window; the window manager takes the icon up when it comes. The engine loads
    // only if a scheduled check or the second launch's question needs it.
    afterFirstFrame(window.get(), [this] {
        window->setWindowIcon(QIcon(appIcon(256)));
        EmberlaneUpdates::shared().loadEngineWhenDue();
    });

    // Asked only once the window has drawn its first frame, so that the question has a window
    // under it.
    afterFirstFrame(window.get(), [this] { offerServiceRefresh(); });
}

void AppDelegate::bringWindowForward()
{
    if (!window)
        return;
    window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
    window->show();
    window->raise();
    window->activateWindow();
}
