// Opens the real application, waits until its window is on screen, saves the window's pixels
// as a PNG and quits. Used under Xvfb by "make screenshot".
//
//   screenshot BUNDLE OUTPUT.png [--wait MS] [--add-radio ADDRESS] [--select ROW] [--size WxH]
//
// --size gives the window's content area that size (the menu bar comes on top), to see the
// window at its minimum or any other size a user may choose.
// --select picks that row of the radio list before the picture is taken.
// With --add-radio it goes the user's way through "Add Radio…": it saves the question as
// OUTPUT-dialog.png, types the address, presses OK, saves any message that follows as
// OUTPUT-message.png, and saves the window once the app is idle again. The service's status is
// what systemd's user manager on the user bus says (DBUS_SESSION_BUS_ADDRESS).
// --check-updates chooses "Check for Updates…" in the Veldspar menu and saves each update
// window as OUTPUT-update-N.png before pressing its default button.

#include "app/AppDelegate.h"
#include "platform/Bundle.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLineEdit>
#include <QListView>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QScreen>
#include <QTimer>

#include <cstdio>

namespace {
bool saveShot(QWidget *window, const QString &path)
{
    const QRect frame = window->frameGeometry();
    const QPixmap shot = window->screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    if (!shot.save(path)) {
        std::fprintf(stderr, "Cannot save %s\n", qPrintable(path));
        return false;
    }
    std::printf("Saved %s (%dx%d)\n", qPrintable(path), shot.width(), shot.height());
    return true;
}

QString withSuffix(const QString &output, const QString &suffix)
{
    QString stem = output;
    if (stem.endsWith(QStringLiteral(".png")))
        stem.chop(4);
    return stem + suffix + QStringLiteral(".png");
}

QAbstractButton *buttonTitled(QWidget *window, const QString &title)
{
    for (QAbstractButton *button : window->findChildren<QAbstractButton *>())
        if (button->text() == title)
            return button;
    return nullptr;
}

// Answers each modal panel as it appears: the first with the address, later ones with OK.
class PanelAnswerer : public QObject
{
public:
    PanelAnswerer(QString address, QString output) : m_address(std::move(address)), m_output(std::move(output))
    {
        m_timer.setInterval(50);
        connect(&m_timer, &QTimer::timeout, this, &PanelAnswerer::poll);
        m_timer.start();
    }

private:
    void poll()
    {
        QWidget *panel = QApplication::activeModalWidget();
        if (!panel || !panel->isVisible() || panel == m_answered)
            return;
        if (++m_seenFor < 6) // let it be drawn before it is photographed
            return;
        m_seenFor = 0;
        m_answered = panel;
        if (auto *field = panel->findChild<QLineEdit *>()) {
            field->setFocus();
            field->insert(m_address);
            QCoreApplication::processEvents();
            saveShot(panel, withSuffix(m_output, QStringLiteral("-dialog")));
        } else {
            saveShot(panel, withSuffix(m_output, QStringLiteral("-message")));
        }
        if (QAbstractButton *ok = buttonTitled(panel, QStringLiteral("OK")))
            ok->click();
    }

    QString m_address;
    QString m_output;
    QTimer m_timer;
    QWidget *m_answered = nullptr;
    int m_seenFor = 0;
};
// Follows the updater's windows: saves each new one, then presses its default button.
class UpdateWindowFollower : public QObject
{
public:
    explicit UpdateWindowFollower(QString output) : m_output(std::move(output))
    {
        m_timer.setInterval(100);
        connect(&m_timer, &QTimer::timeout, this, &UpdateWindowFollower::poll);
        m_timer.start();
    }

private:
    void poll()
    {
        for (QWidget *window : QApplication::topLevelWidgets()) {
            if (window->objectName() != QStringLiteral("updateWindow") || !window->isVisible() || window == m_seen)
                continue;
            auto *button = window->findChild<QPushButton *>();
            for (QPushButton *candidate : window->findChildren<QPushButton *>())
                if (candidate->isDefault())
                    button = candidate;
            if (!button) // a progress window: photograph it once and let it run
                continue;
            if (++m_seenFor < 8)
                return;
            m_seenFor = 0;
            m_seen = window;
            saveShot(window, withSuffix(m_output, QStringLiteral("-update-%1").arg(++m_count)));
            std::printf("Pressing \"%s\"\n", qPrintable(button->text()));
            button->click();
        }
    }

    QString m_output;
    QTimer m_timer;
    QWidget *m_seen = nullptr;
    int m_seenFor = 0;
    int m_count = 0;
};
} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.size() < 2) {
        std::fprintf(stderr, "usage: screenshot BUNDLE OUTPUT.png [--wait MS] [--add-radio ADDRESS] "
                             "[--select ROW] [--size WxH]\n");
        return 2;
    }
    // The tool lives outside the bundle, so it points the app at the bundle's resources, and
    // it carries the update engine itself.
    setBundleLocationForTesting(arguments.takeFirst());
    setUpdateEngineFactory(&veldsparCreateUpdateEngine);
    const QString output = arguments.takeFirst();
    int waitMs = 1500;
    QString address;
    int selectRow = -1;
    bool checkUpdates = false;
    QSize contentSize;
    if (arguments.removeAll(QStringLiteral("--check-updates")) > 0)
        checkUpdates = true;
    while (arguments.size() >= 2) {
        const QString option = arguments.takeFirst();
        const QString value = arguments.takeFirst();
        if (option == QStringLiteral("--wait"))
            waitMs = value.toInt();
        else if (option == QStringLiteral("--add-radio"))
            address = value;
        else if (option == QStringLiteral("--select"))
            selectRow = value.toInt();
        else if (option == QStringLiteral("--size"))
            contentSize = QSize(value.section(u'x', 0, 0).toInt(), value.section(u'x', 1, 1).toInt());
    }

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    QMainWindow *window = delegate.mainWindow();
    if (contentSize.isValid())
        window->resize(contentSize.width(), contentSize.height() + window->menuBar()->height());

    if (selectRow >= 0) {
        if (auto *list = window->findChild<QListView *>(QStringLiteral("table")); list && list->model())
            list->setCurrentIndex(list->model()->index(selectRow, 0));
    }

    std::unique_ptr<UpdateWindowFollower> follower;
    if (checkUpdates) {
        follower = std::make_unique<UpdateWindowFollower>(output);
        QTimer::singleShot(waitMs, window, [window] {
            for (QAction *action : window->menuBar()->actions().first()->menu()->actions())
                if (action->text() == QStringLiteral("Check for Updates\u2026"))
                    action->trigger();
        });
    }
    std::unique_ptr<PanelAnswerer> answerer;
    if (!address.isNull()) {
        answerer = std::make_unique<PanelAnswerer>(address, output);
        QTimer::singleShot(waitMs, window, [window] {
            if (QAbstractButton *add = buttonTitled(window, QStringLiteral("Add Radio\u2026")))
                add->click();
        });
    }

    int status = 1;
    QTimer finish;
    QObject::connect(&finish, &QTimer::timeout, &application, [&] {
        if (delegate.isBusy() || QApplication::activeModalWidget())
            return;
        for (QWidget *top : QApplication::topLevelWidgets())
            if (top->objectName() == QStringLiteral("updateWindow") && top->isVisible())
                return;
        finish.stop();
        // Give the window a moment to draw what the last step changed.
        QTimer::singleShot(400, &application, [&] {
            status = saveShot(window, output) ? 0 : 1;
            QCoreApplication::quit();
        });
    });
    // A window that never settles (a question nobody answers) must not hold the tool for ever.
    QTimer::singleShot(waitMs + 60000, &application, [] {
        std::fprintf(stderr, "The app did not settle within a minute; no picture taken.\n");
        QCoreApplication::exit(3);
    });
    QTimer::singleShot(waitMs + (address.isNull() && !checkUpdates ? 0 : 3000), &application, [&] { finish.start(100); });
    QApplication::exec();
    return status;
}
