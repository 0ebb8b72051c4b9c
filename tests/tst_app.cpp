// The application shell as a user meets it: start-up, the operation gate, the window and its
// menus, the radio list with its details panel, the service button and the modal panel.

#include "TestSupport.h"

#include "app/AppDelegate.h"
#include "app/DialogGeometry.h"
#include "app/DialogText.h"
#include "app/Fonts.h"
#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "platform/Background.h"
#include "platform/RadioTexts.h"
#include "platform/SingleInstance.h"
#include "platform/WindowTitle.h"
#include "updates/EmberlaneUpdates.h"
#include "updates/UserSettings.h"

#include <QAccessible>
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDesktopServices>
#include <QDialog>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QPointer>
#include <QProxyStyle>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextLayout>
#include <QTest>
#include <QUrl>
#include <QWindow>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString ellipsis = u"\u2026"_s;
const QString emDash = u"\u2014"_s;

const QStringList detailKeys = {u"model"_s, u"ipAddress"_s, u"serialNumber"_s, u"callsign"_s, u"version"_s};

QJsonObject fullRadio(const QString &address, const QString &serial, const QString &name)
{
    QJsonObject entry = radio(address, serial, name);
    entry.insert(u"model"_s, u"FLEX-6600"_s);
    entry.insert(u"callsign"_s, u"KE5ABC"_s);
    return entry;
}

// Alpha and Bravo; Bravo's firmware is not known yet, so a save asks it who it is, and that
// answer is held until the world releases it.
void holdBravosProbe(const TestWorld &world)
{
    QJsonObject bravo = fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s);
    bravo.remove(u"version"_s);
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s), bravo}));
    QJsonObject answer = fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s);
    answer.remove(u"enabled"_s);
    answer.remove(u"ipAddress"_s);
    world.answerDiscover(u"10.0.0.2"_s, QJsonDocument(answer).toJson(QJsonDocument::Compact) + '\n', 0, true);
}

// Calls back with every event the object gets, before the object handles it.
class EventRecorder : public QObject
{
public:
    EventRecorder(QObject *watched, std::function<void(QEvent *)> seen) : m_seen(std::move(seen))
    {
        watched->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        m_seen(event);
        return false;
    }

private:
    std::function<void(QEvent *)> m_seen;
};

// A radio with the longest text a radio may have in every field the details panel shows.
QJsonObject longestRadio()
{
    QJsonObject entry = radio(u"radio-"_s + QString(longestRadioAddress - 14, u'x') + u".example"_s,
                              QString(longestSerialNumber, u'8'), QString(longestRadioName, u'W'));
    entry.insert(u"model"_s, QString(longestModel, u'M'));
    entry.insert(u"callsign"_s, QString(longestCallsign, u'W'));
    entry.insert(u"version"_s, QString(longestVersion, u'8'));
    return entry;
}

// The configuration most tests start from: one radio with every field filled in.
void writeAlpha(TestWorld &world)
{
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s)}));
}

// The real executable, as installed, in the world, telling which files the dynamic loader opens.
class LoaderWatchedApp
{
public:
    LoaderWatchedApp()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"LD_DEBUG"_s, u"files"_s);
        m_app.setProcessEnvironment(environment);
        m_app.setProcessChannelMode(QProcess::MergedChannels);
        m_app.start(QStringLiteral(VELDSPAR_APP_EXECUTABLE), QStringList());
    }
    ~LoaderWatchedApp()
    {
        m_app.kill();
        m_app.waitForFinished(10000);
    }
    bool started() { return m_app.waitForStarted(10000); }
    bool running() const { return m_app.state() == QProcess::Running; }
    const QByteArray &log()
    {
        m_log += m_app.readAll();
        return m_log;
    }

private:
    QProcess m_app;
    QByteArray m_log;
};

// The update engine's library and the libraries only it needs, as the loader's log names them.
const QList<QByteArray> updateLibraries = {"libveldspar-updates.so", "libQt6Network.so", "libarchive.so", "libsodium.so"};

// The update setting of the world's user, in the settings store the app reads.
void storeAutomaticChecks(bool on, const QDateTime &lastCheck = QDateTime())
{
    UpdateUserSettings::setAutomaticChecks(on);
    if (lastCheck.isValid())
        UpdateUserSettings::setLastCheckTime(lastCheck);
}

// Waits until the app's window is on screen and has keyboard focus, as after a real launch.
bool windowReady(const RunningApp &app)
{
    return QTest::qWaitForWindowExposed(app.window()) && QTest::qWaitForWindowActive(app.window());
}

QLabel *labelWithText(QWidget *root, const QString &text)
{
    for (QLabel *label : root->findChildren<QLabel *>())
        if (label->text() == text)
            return label;
    return nullptr;
}

QMenu *menuTitled(QMainWindow *window, const QString &title)
{
    for (QAction *action : window->menuBar()->actions())
        if (action->text() == title)
            return action->menu();
    return nullptr;
}

QAction *menuItem(QMainWindow *window, const QString &menu, const QString &title)
{
    QMenu *found = menuTitled(window, menu);
    if (!found)
        return nullptr;
    for (QAction *action : found->actions())
        if (action->text() == title)
            return action;
    return nullptr;
}

// Lets queued work and the dialog answerer's polling run for a while.
void settle(int ms = 150)
{
    QTest::qWait(ms);
}

// Ends any modal panel still up after a few seconds with a code that is not OK's, so that a
// key that fails to close a panel fails the test instead of hanging it.
class ModalWatchdog
{
public:
    ModalWatchdog()
    {
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, [] {
            if (auto *panel = qobject_cast<QDialog *>(QApplication::activeModalWidget())) {
                qWarning("A modal panel was still up; ending it");
                panel->done(-1);
            }
        });
        m_timer.start(5000);
    }

private:
    QTimer m_timer;
};

// Runs act() once on the first modal panel that comes up, from the event loop of its run.
class OnModalPanel
{
public:
    explicit OnModalPanel(std::function<void(QDialog *)> act) : m_act(std::move(act))
    {
        m_timer.setInterval(10);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            auto *panel = qobject_cast<QDialog *>(QApplication::activeModalWidget());
            if (!panel || !panel->isVisible())
                return;
            m_timer.stop();
            m_act(panel);
        });
        m_timer.start();
    }

private:
    std::function<void(QDialog *)> m_act;
    QTimer m_timer;
};

QPushButton *panelButton(QDialog *panel, const QString &title)
{
    for (QPushButton *button : panel->findChildren<QPushButton *>())
        if (button->text() == title)
            return button;
    return nullptr;
}

QList<DialogText *> panelTexts(QDialog *panel)
{
    QList<DialogText *> texts = panel->findChildren<DialogText *>();
    std::sort(texts.begin(), texts.end(), [](QWidget *a, QWidget *b) { return a->y() < b->y(); });
    return texts;
}

// Lets held answers of the stand-in go when a test ends early, before the app waits for them.
struct ReleaseOnExit
{
    const TestWorld &world;
    ~ReleaseOnExit() { world.release(); }
};

// Receives what the app asks the desktop to open.
class OpenedUrls : public QObject
{
    Q_OBJECT

public:
    OpenedUrls() { QDesktopServices::setUrlHandler(u"file"_s, this, "open"); }
    ~OpenedUrls() override { QDesktopServices::unsetUrlHandler(u"file"_s); }

    QList<QUrl> urls;

public Q_SLOTS:
    void open(const QUrl &url) { urls << url; }
};

// The button as drawn, over a known background; nothing of the parent is painted.
QImage rendered(QWidget *widget, const QColor &background)
{
    QImage image(widget->size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(background);
    widget->render(&image, QPoint(), QRegion(), QWidget::RenderFlags());
    return image;
}

// The tint laid over the background at the fill's opacity, as the raster engine blends it.
QColor blended(const QColor &tint, qreal alpha, const QColor &background)
{
    const auto mix = [alpha](int top, int bottom) { return qRound(top * alpha + bottom * (1 - alpha)); };
    return QColor(mix(tint.red(), background.red()), mix(tint.green(), background.green()),
                  mix(tint.blue(), background.blue()));
}

bool near(const QColor &a, const QColor &b, int tolerance)
{
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance
           && qAbs(a.blue() - b.blue()) <= tolerance;
}

// How a service button's face looks against its expected fill and title colours: where the
// title's ink lies, and whether every pixel of the face is the fill, the title colour, or an
// anti-aliased mix of the two.
struct Face
{
    QRect ink;              // pixels at least half-way from the fill to the title colour
    int fullTintPixels = 0; // pixels of the title drawn at full strength
    int foreignPixels = 0;  // pixels that are none of these
    QColor firstForeign;
};

Face faceOf(const QImage &image, const QColor &fill, const QColor &title)
{
    // How far a pixel has gone from the fill towards the title, measured on the channel where
    // the two differ most.
    const int deltas[] = {title.red() - fill.red(), title.green() - fill.green(), title.blue() - fill.blue()};
    int axis = 0;
    for (int channel : {1, 2})
        if (qAbs(deltas[channel]) > qAbs(deltas[axis]))
            axis = channel;
    const auto channelOf = [axis](const QColor &colour) {
        return axis == 0 ? colour.red() : axis == 1 ? colour.green() : colour.blue();
    };
    // Stay clear of the one-pixel inset and the rounded corners (radius 7).
    const auto inCorner = [&image](int x, int y) {
        return (x < 8 || x >= image.width() - 8) && (y < 8 || y >= image.height() - 8);
    };

    Face face;
    for (int y = 2; y < image.height() - 2; ++y) {
        for (int x = 2; x < image.width() - 2; ++x) {
            if (inCorner(x, y))
                continue;
            const QColor pixel = image.pixelColor(x, y);
            const qreal t = qreal(channelOf(pixel) - channelOf(fill)) / deltas[axis];
            const QColor mix(qBound(0, qRound(fill.red() + t * deltas[0]), 255),
                             qBound(0, qRound(fill.green() + t * deltas[1]), 255),
                             qBound(0, qRound(fill.blue() + t * deltas[2]), 255));
            if (t < -0.05 || t > 1.05 || !near(pixel, mix, 4)) {
                if (face.foreignPixels++ == 0)
                    face.firstForeign = pixel;
                continue;
            }
            if (t >= 0.5)
                face.ink |= QRect(x, y, 1, 1);
            if (near(pixel, title, 3))
                ++face.fullTintPixels;
        }
    }
    return face;
}

qreal middleX(const QRect &rect)
{
    return (rect.left() + rect.right()) / 2.0;
}

qreal middleY(const QRect &rect)
{
    return (rect.top() + rect.bottom()) / 2.0;
}

// The interface assistive technology sees for a widget.
QAccessibleInterface *accessible(QObject *object)
{
    return QAccessible::queryAccessibleInterface(object);
}

// The objects whose interfaces stand in the given relation to this one.
QList<QObject *> related(QAccessibleInterface *iface, QAccessible::Relation relation)
{
    QList<QObject *> found;
    for (const auto &pair : iface->relations(relation))
        if (pair.second & relation)
            found << pair.first->object();
    return found;
}

// A widget as a failure message names it.
QString nameOf(QWidget *widget)
{
    if (!widget)
        return u"nothing"_s;
    if (auto *button = qobject_cast<QAbstractButton *>(widget))
        return button->text();
    return widget->objectName();
}

// Whether the saved file lists the radio at row as included.
bool savedAsEnabled(const TestWorld &world, int row)
{
    const QJsonArray radios = parseObject(world.readConfig()).value(u"radios"_s).toArray();
    return radios.at(row).toObject().value(u"enabled"_s) == QJsonValue(true);
}

// Acts on a control through its accessibility interface, as a screen reader does.
void doAccessibleAction(QWidget *widget, const QString &action)
{
    QAccessibleActionInterface *actions = accessible(widget)->actionInterface();
    QVERIFY(actions);
    actions->doAction(action);
}

constexpr qreal fillAlpha = 0.13;
const QColor danger(0xDA, 0x44, 0x53);
const QColor success(0x27, 0xAE, 0x60);

} // namespace

class AppShellTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    // Start-up.
    void startsWithTitledWindowOfContentSize960x620();
    void menusOfferQuitAndTheEditCommands();
    void viewTreeShowsEveryTextAndControl();
    void serviceRowShowsCheckingUntilTheFirstStatus();
    void statusSaysConfigurationLoadedForAValidFile();
    void statusSaysNoRadiosWithoutAFile();
    void tenThousandRadiosCreateNoRowWidgets();

    // Controller and gate.
    void whileSavingOnlyReloadAndShowFilesAct();
    void closingTheWindowQuits();
    void theWindowShowsWhileTheUserBusHangs();
    void secondStartBringsTheFirstForwardAndLeaves();
    void theAppStartsWithoutTheUpdateLibrariesOrImagePlugins();
    void theIdleAppNeverLoadsTheUpdateEngine_data();
    void theIdleAppNeverLoadsTheUpdateEngine();
    void theUpdateEngineWaitsForTheFirstFrame();
    void theWindowIconComesAfterTheFirstFrame();
    void menuBarOverflowArrowIsTheStylesOwn();
    void bringingForwardRestoresAMinimisedWindow();

    // Window and menus.
    void shrinkingStopsAtTheMinimumContentSize();
    void longStatusIsElidedOnOneLine();
    void everyDetailGetsItsFullHeightAtEverySize_data();
    void everyDetailGetsItsFullHeightAtEverySize();
    void ctrlQQuits();
    void editShortcutsActOnTheFocusedTextField();

    // Radio table and details.
    void noRadiosShowAnEmptyDisabledPanel();
    void radiosWithoutSelectionAskToSelectOne();
    void removingTheSelectedLastOfThreeSelectsTheSecond();
    void enabledAsTextCountsAsDisabled();
    void unnamedRadioShowsRadio();
    void longNamesAndValuesGiveWayWithAnEllipsis();
    void numericFirmwareShowsADash();
    void everyWayOfChangingTheIncludeBoxSavesOnce();
    void showingAnotherStateInTheIncludeBoxDoesNotSave();
    void whileBusyTheIncludeBoxReturnsToTheEntry();

    // Accessibility and keyboard.
    void radioListReadsNameAddressAndState();
    void detailValuesAreLabelledByTheirCaptions();
    void controlsHaveAccessibleNames();
    void wholeWindowWorksByKeyboard();

    // Service button.
    void inactiveButtonIsPaleRedWithRedTitleCentred();
    void activeButtonTurnsGreenAtTheNextRedraw();
    void disabledButtonKeepsItsColours();
    void wideTitleIsNeitherCutNorScaledButCentred();
    void focusedButtonShowsARing();
    void tabReachesTheEnabledButton();

    // Dialogs.
    void alertIsOneLabelHighWithOkCentred();
    void emptyDialogShowsOnlyIconAndButton();
    void longDetailWrapsAndGrowsThePanel();
    void returnInTheInputFieldConfirms();
    void cancelEscapeAndOtherEndingsReturnFalse();
    void panelPlacesIconTextsFieldAndButtons();
    void longWordsBreakInsideTheLine();
    void textsKeepTheirStylesAndColours();
    void secondaryTextFollowsTheDesktopsColourScheme();
    void messageTextCanBeSelectedAndCopied();
    void returnAndEscapeAnswerFromTheText();
    void returnOnAFocusedCancelCancels_data();
    void returnOnAFocusedCancelCancels();
    void panelIsAnnouncedByItsTexts();
    void panelShowsNoTitleText();
    void addRadioFieldHasAnAccessibleName();
};

void AppShellTest::init()
{
    // Each test starts with the application's defaults, whatever the previous one left.
    QGuiApplication::setQuitOnLastWindowClosed(true);
    QGuiApplication::clipboard()->clear();
}

// ---------------------------------------------------------------------------------------------
// Start-up

void AppShellTest::startsWithTitledWindowOfContentSize960x620()
{
    TestWorld world;
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));

    QVERIFY(app.window()->isVisible());
    QCOMPARE(app.window()->windowTitle(), u"Veldspar"_s);
    // The menu bar sits on top of the content area; the sizes are the content's.
    QCOMPARE(app.window()->centralWidget()->size(), QSize(960, 620));
    QCOMPARE(app.window()->centralWidget()->minimumSize(), QSize(880, 580));
}

void AppShellTest::menusOfferQuitAndTheEditCommands()
{
    TestWorld world;
    RunningApp app(world);

    QStringList menus;
    for (QAction *action : app.window()->menuBar()->actions())
        menus << action->text();
    QCOMPARE(menus, (QStringList{u"Veldspar"_s, u"Edit"_s}));

    QMenu *application = menuTitled(app.window(), u"Veldspar"_s);
    QVERIFY(application);
    QVERIFY(!application->actions().isEmpty());
    QAction *quit = application->actions().first();
    QCOMPARE(quit->text(), u"Quit Veldspar"_s);
    QCOMPARE(quit->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));

    QMenu *edit = menuTitled(app.window(), u"Edit"_s);
    QVERIFY(edit);
    QStringList titles;
    QList<QKeySequence> keys;
    for (QAction *action : edit->actions()) {
        titles << action->text();
        keys << action->shortcut();
    }
    QCOMPARE(titles, (QStringList{u"Undo"_s, u"Cut"_s, u"Copy"_s, u"Paste"_s, u"Select All"_s}));
    QCOMPARE(keys, (QList<QKeySequence>{QKeySequence(Qt::CTRL | Qt::Key_Z), QKeySequence(Qt::CTRL | Qt::Key_X),
                                         QKeySequence(Qt::CTRL | Qt::Key_C), QKeySequence(Qt::CTRL | Qt::Key_V),
                                         QKeySequence(Qt::CTRL | Qt::Key_A)}));
}

void AppShellTest::viewTreeShowsEveryTextAndControl()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QWidget *content = app.window()->centralWidget();

    QLabel *heading = labelWithText(content, u"Radios"_s);
    QLabel *subtitle = labelWithText(content, u"Make remote FlexRadios discoverable on your local network."_s);
    QVERIFY(heading && heading->isVisible());
    QVERIFY(subtitle && subtitle->isVisible());
    QVERIFY(heading->y() < subtitle->y());

    // The toolbar, left to right, below the subtitle.
    const QStringList toolbar = {u"Add Radio\u2026"_s, u"Import\u2026"_s, u"Delete Config"_s, u"Reload"_s};
    int previousRight = -1;
    for (const QString &title : toolbar) {
        QAbstractButton *button = app.button(title);
        QVERIFY2(button && button->isVisible(), qPrintable(title));
        const QRect frame(button->mapTo(content, QPoint()), button->size());
        QVERIFY2(frame.left() > previousRight, qPrintable(title));
        QVERIFY(frame.top() > subtitle->geometry().bottom());
        previousRight = frame.right();
    }

    // Captions above their values, in the details panel's order.
    const QStringList captions = {u"MODEL"_s, u"IP ADDRESS"_s, u"SERIAL NUMBER"_s, u"CALLSIGN"_s, u"FIRMWARE"_s};
    int previousBottom = app.detailTitle()->mapTo(content, QPoint(0, app.detailTitle()->height())).y();
    for (qsizetype i = 0; i < captions.size(); ++i) {
        QLabel *caption = labelWithText(content, captions.at(i));
        QLabel *value = app.value(detailKeys.at(i));
        QVERIFY2(caption && caption->isVisible(), qPrintable(captions.at(i)));
        QVERIFY2(value && value->isVisible(), qPrintable(detailKeys.at(i)));
        const int captionTop = caption->mapTo(content, QPoint()).y();
        const int valueTop = value->mapTo(content, QPoint()).y();
        QVERIFY2(captionTop >= previousBottom, qPrintable(captions.at(i)));
        QVERIFY2(valueTop > captionTop, qPrintable(captions.at(i)));
        QCOMPARE(caption->mapTo(content, QPoint()).x(), value->mapTo(content, QPoint()).x());
        previousBottom = valueTop + value->height();
    }
    QCOMPARE(app.value(u"model"_s)->text(), u"FLEX-6600"_s);
    QCOMPARE(app.value(u"ipAddress"_s)->text(), u"10.0.0.1"_s);
    QCOMPARE(app.value(u"serialNumber"_s)->text(), u"1234-5678-9012-3456"_s);
    QCOMPARE(app.value(u"callsign"_s)->text(), u"KE5ABC"_s);
    QCOMPARE(app.value(u"version"_s)->text(), u"3.3.32.8203"_s);

    QCOMPARE(app.includeBox()->text(), u"Include in discovery"_s);
    QVERIFY(app.includeBox()->isVisible());
    QCOMPARE(app.removeButton()->text(), u"Remove Radio"_s);
    QVERIFY(app.removeButton()->isVisible());
    QVERIFY(app.includeBox()->mapTo(content, QPoint()).y() > previousBottom);
    QVERIFY(app.removeButton()->mapTo(content, QPoint()).y() > app.includeBox()->mapTo(content, QPoint()).y());

    // The list on the left, the details on the right.
    QVERIFY(app.table()->isVisible());
    QVERIFY(app.table()->mapTo(content, QPoint()).x() + app.table()->width()
            <= app.detailTitle()->mapTo(content, QPoint()).x());

    // The service row and the status line at the bottom.
    for (const QString &title : {u"Uninstall"_s, u"Show Files"_s}) {
        QAbstractButton *button = app.button(title);
        QVERIFY2(button && button->isVisible(), qPrintable(title));
        QVERIFY(button->mapTo(content, QPoint()).y() > app.table()->mapTo(content, QPoint(0, app.table()->height())).y());
    }
    QVERIFY(app.status()->isVisible());
    QVERIFY(app.status()->mapTo(content, QPoint()).y()
            > app.button(u"Show Files"_s)->mapTo(content, QPoint(0, app.button(u"Show Files"_s)->height())).y());
}

void AppShellTest::serviceRowShowsCheckingUntilTheFirstStatus()
{
    TestWorld world;
    world.holdSystemctl(); // the first check's question waits for an answer
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));

    auto *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
    auto *startup = app.window()->findChild<QLabel *>(u"serviceStartup"_s);
    QVERIFY(state && startup);
    QCOMPARE(state->text(), u"Checking service\u2026"_s);
    QCOMPARE(startup->text(), u"Checking login startup"_s);
    QVERIFY(state->isVisible());
    QVERIFY(startup->isVisible());
    QVERIFY(state->y() < startup->y());

    ServiceButton *button = app.serviceButton();
    QVERIFY(button && button->isVisible());
    QCOMPARE(button->text(), u"Checking\u2026"_s);
    QVERIFY(!button->isEnabled());
    QVERIFY(!button->active());
    QCOMPARE(button->size(), QSize(100, 30));
    // Nothing to enable yet, so the button says why.
    QCOMPARE(button->toolTip(), u"Add or import a radio before enabling the service."_s);
    world.release();
}

void AppShellTest::statusSaysConfigurationLoadedForAValidFile()
{
    TestWorld world;
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s),
                                  fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s)}));
    RunningApp app(world);

    QCOMPARE(app.statusText(), u"Configuration loaded"_s);
    QCOMPARE(app.rowCount(), 2);
    QCOMPARE(app.rowTexts(0), (QStringList{u"Alpha"_s, u"10.0.0.1  \u00B7  Enabled"_s}));
    QCOMPARE(app.rowTexts(1), (QStringList{u"Bravo"_s, u"10.0.0.2  \u00B7  Enabled"_s}));
    QCOMPARE(app.selectedRow(), 0);
    QCOMPARE(app.detailTitle()->text(), u"Alpha"_s);
    // Loading never writes the file back.
    QCOMPARE(world.calls().size(), 0);
}

void AppShellTest::statusSaysNoRadiosWithoutAFile()
{
    TestWorld world;
    RunningApp app(world);

    QCOMPARE(app.statusText(), u"No radios configured"_s);
    QCOMPARE(app.rowCount(), 0);
    // The empty document lives only in the app until something is saved.
    QVERIFY(!world.configExists());
}

void AppShellTest::tenThousandRadiosCreateNoRowWidgets()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    app.table()->grab(); // paint the visible rows
    const qsizetype widgetsBefore = app.table()->viewport()->findChildren<QWidget *>().size();

    QList<QJsonObject> radios;
    for (int i = 0; i < 10000; ++i)
        radios << radio(u"10.%1.%2.%3"_s.arg(i / 65536).arg((i / 256) % 256).arg(i % 256),
                        u"%1-0000-0000-0001"_s.arg(i + 1, 4, 10, QLatin1Char('0')), u"Radio %1"_s.arg(i + 1));
    world.writeConfig(configWith(radios));
    app.click(app.button(u"Reload"_s));

    QCOMPARE(app.statusText(), u"Configuration loaded"_s);
    QCOMPARE(app.rowCount(), 10000);
    app.table()->grab();
    app.table()->scrollToBottom();
    app.table()->grab();
    QCOMPARE(app.table()->viewport()->findChildren<QWidget *>().size(), widgetsBefore);
    QCOMPARE(app.rowTexts(9999), (QStringList{u"Radio 10000"_s, u"10.0.39.15  \u00B7  Enabled"_s}));

    app.selectRow(9999);
    QCOMPARE(app.detailTitle()->text(), u"Radio 10000"_s);
    QCOMPARE(app.table()->viewport()->findChildren<QWidget *>().size(), widgetsBefore);
}

// ---------------------------------------------------------------------------------------------
// Controller and gate

void AppShellTest::whileSavingOnlyReloadAndShowFilesAct()
{
    TestWorld world;
    holdBravosProbe(world);

    DialogAnswerer answerer;
    OpenedUrls opened;
    RunningApp app(world);
    const ReleaseOnExit releaseOnExit{world};
    QVERIFY(windowReady(app));
    QCOMPARE(app.selectedRow(), 0);
    QVERIFY(app.includeBox()->isChecked());

    // Excluding Alpha saves at once; the save waits for Bravo's answer.
    app.click(app.includeBox());
    QVERIFY(app.app().isBusy());
    QCOMPARE(app.statusText(), u"Checking radio identities before saving\u2026"_s);
    QTRY_COMPARE(world.discoveredAddresses(), QStringList{u"10.0.0.2"_s});
    QCOMPARE(app.rowTexts(0).at(1), u"10.0.0.1  \u00B7  Disabled"_s);
    const QString draft = app.app().draftText();

    // Add Radio… and Delete Config ask nothing, and nothing changes.
    app.click(app.button(u"Add Radio…"_s));
    settle();
    QVERIFY(answerer.shown().isEmpty());
    app.click(app.button(u"Delete Config"_s));
    settle();
    QVERIFY(answerer.shown().isEmpty());
    QCOMPARE(app.rowCount(), 2);

    // The check box stays as the radio is.
    app.click(app.includeBox());
    settle();
    QVERIFY(!app.includeBox()->isChecked());
    QCOMPARE(app.rowTexts(0).at(1), u"10.0.0.1  \u00B7  Disabled"_s);

    // Remove Radio removes nothing, whichever radio is selected.
    app.click(app.removeButton());
    app.selectRow(1);
    QCOMPARE(app.detailTitle()->text(), u"Bravo"_s);
    app.click(app.removeButton());
    settle();
    QCOMPARE(app.rowCount(), 2);
    QCOMPARE(app.rowTexts(1).at(0), u"Bravo"_s);

    QCOMPARE(app.app().draftText(), draft);
    QCOMPARE(app.statusText(), u"Checking radio identities before saving\u2026"_s);
    QVERIFY(app.app().isBusy());

    // Show Files still opens the support folder.
    app.click(app.button(u"Show Files"_s));
    QCOMPARE(opened.urls, QList<QUrl>{QUrl::fromLocalFile(world.home() + u"/.local/share/Veldspar"_s)});

    // Reload still reads the file, which someone changed meanwhile.
    const QByteArray changed = configWith({fullRadio(u"10.0.0.3"_s, u"3234-5678-9012-3456"_s, u"Charlie"_s)});
    world.writeConfig(changed);
    app.click(app.button(u"Reload"_s));
    QCOMPARE(app.rowCount(), 1);
    QCOMPARE(app.rowTexts(0).at(0), u"Charlie"_s);
    QCOMPARE(app.detailTitle()->text(), u"Charlie"_s);
    // The rebuilt list keeps the service button shut while the save runs.
    QVERIFY(!app.serviceButton()->isEnabled());

    // The held save ends without writing over the reloaded file.
    world.release();
    QVERIFY(app.waitUntilIdle());
    QTRY_COMPARE(answerer.titles(), QStringList{u"The draft changed. Please Save again."_s});
    QCOMPARE(world.readConfig(), changed);
    QCOMPARE(world.discoveredAddresses(), QStringList{u"10.0.0.2"_s});
    QCOMPARE(world.importedFiles().size(), 0);
    QCOMPARE(app.rowTexts(0).at(0), u"Charlie"_s);
}

void AppShellTest::closingTheWindowQuits()
{
    TestWorld world;
    QGuiApplication::setQuitOnLastWindowClosed(false);
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QVERIFY(QGuiApplication::quitOnLastWindowClosed());

    QSignalSpy lastClosed(qApp, &QGuiApplication::lastWindowClosed);
    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    const int code = runEventLoop([&app] { app.window()->close(); });

    QCOMPARE(code, 0);
    QCOMPARE(lastClosed.size(), 1);
    QCOMPARE(quitting.size(), 1);
    QVERIFY(!app.window()->isVisible());
}

// Run on X11 by ctest as well, alone: there the first menu bar (looking for a global menu) and
// the first label (telling the accessibility bridge) make Qt connect to the session bus.
void AppShellTest::theWindowShowsWhileTheUserBusHangs()
{
    TestWorld world;
    world.writeUnitFile(u"org.kestrum.Veldspar"_s);
    world.pauseUserBus();
    const auto resume = qScopeGuard([&world] { world.resumeUserBus(); });
    {
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window(), 5000));
        // The status check gives up on the silent bus like on a missing one.
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceState"_s)->text(), u"\u25CF Status unavailable"_s);
        // The next check is connecting again when the app goes.
        QTRY_VERIFY_WITH_TIMEOUT(backgroundPool().activeThreadCount() > 0, 10000);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void AppShellTest::secondStartBringsTheFirstForwardAndLeaves()
{
    TestWorld world; // both copies inherit its private HOME, TMPDIR and XDG_RUNTIME_DIR
    const QString program = QStringLiteral(VELDSPAR_APP_EXECUTABLE);
    QProcess first;
    first.start(program, QStringList());
    const auto endFirst = qScopeGuard([&first] {
        first.kill();
        first.waitForFinished(10000);
    });
    QVERIFY(first.waitForStarted(10000));
    // The first copy is up once later starts can reach it.
    const QString socket = SingleInstance::defaultServerName();
    QVERIFY(!socket.isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(socket) || first.state() != QProcess::Running, 30000);
    QCOMPARE(first.state(), QProcess::Running);

    QProcess second;
    second.start(program, QStringList());
    QVERIFY2(second.waitForFinished(30000), "the second start is still running");
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), 0);

    QByteArray firstLog;
    QTRY_VERIFY_WITH_TIMEOUT(
        (firstLog += first.readAllStandardError()).contains("Another start of Veldspar asked this copy to come forward."),
        10000);
    QCOMPARE(first.state(), QProcess::Running);
}

// The real executable, as installed, with a scheduled check due (automatic checks on, never
// checked): the network, archive and crypto libraries come with the update engine's library,
// which the app loads itself once its window is up.
void AppShellTest::theAppStartsWithoutTheUpdateLibrariesOrImagePlugins()
{
    TestWorld world;
    storeAutomaticChecks(true);
    LoaderWatchedApp app;
    QVERIFY(app.started());
    const QByteArray engineReady = "calling init: " + QFileInfo(QStringLiteral(VELDSPAR_APP_EXECUTABLE)).absolutePath().toUtf8()
                                   + "/lib/libveldspar-updates.so";
    QTRY_VERIFY_WITH_TIMEOUT(app.log().contains(engineReady) || !app.running(), 30000);
    const QByteArray log = app.log();
    QVERIFY2(log.contains(engineReady), log.right(4000).constData());

    // Each of them is first asked for by the engine's library, which the app loaded itself.
    const QByteArray engine = "/lib/libveldspar-updates.so [0]";
    QByteArray loadedBy;
    for (const QByteArray &line : log.split('\n')) {
        for (const char *library : {"libQt6Network.so", "libarchive.so", "libsodium.so"}) {
            if (line.contains(QByteArray("file=") + library) && !loadedBy.contains(library))
                loadedBy += QByteArray(library) + (line.contains("needed by") && line.contains(engine) ? " engine" : " other") + ';';
        }
        if (line.contains("file=") && line.contains("libveldspar-updates.so") && line.contains("dynamically loaded by")
            && !loadedBy.contains("engine dynamically loaded"))
            loadedBy += "engine dynamically loaded;";
    }
    QCOMPARE(loadedBy, QByteArray("engine dynamically loaded;libQt6Network.so engine;libsodium.so engine;libarchive.so engine;"));
    QVERIFY2(!log.contains("The updater cannot start"), log.right(4000).constData());

    // Nothing on the way to the first frame probes the image-format plugins (the engine comes
    // after that frame).
    const QByteArray beforeEngine = log.left(log.indexOf(engineReady));
    QVERIFY2(!beforeEngine.contains("/imageformats/"),
             beforeEngine.mid(beforeEngine.indexOf("/imageformats/") - 200, 400).constData());
}

// With no check due and nothing to ask, the app never loads the update engine or what it needs.
void AppShellTest::theIdleAppNeverLoadsTheUpdateEngine_data()
{
    QTest::addColumn<bool>("automatic");
    QTest::addColumn<QDateTime>("lastCheck");
    QTest::newRow("automatic checks off") << false << QDateTime();
    QTest::newRow("checked a minute ago") << true << QDateTime::currentDateTimeUtc().addSecs(-60);
}

void AppShellTest::theIdleAppNeverLoadsTheUpdateEngine()
{
    QFETCH(bool, automatic);
    QFETCH(QDateTime, lastCheck);
    TestWorld world;
    storeAutomaticChecks(automatic, lastCheck);
    QVERIFY(!UpdateUserSettings::hasLaunchedBefore());
    LoaderWatchedApp app;
    QVERIFY(app.started());
    // Once its first frame is drawn, the app marks the launch in the settings store, engine or not.
    QTRY_VERIFY_WITH_TIMEOUT(UpdateUserSettings::hasLaunchedBefore() || !app.running(), 30000);
    QVERIFY2(app.running(), app.log().right(4000).constData());
    QTest::qWait(3000);
    QVERIFY2(app.running(), app.log().right(4000).constData());
    const QByteArray log = app.log();
    QVERIFY2(log.contains("file="), "the loader's log is missing");
    for (const QByteArray &line : log.split('\n')) {
        for (const QByteArray &library : updateLibraries)
            QVERIFY2(!line.contains("file=") || !line.contains(library), line.constData());
    }
}

// Run alone by ctest as well: only the process's first app shows when the engine comes. A
// scheduled check is due, so the engine comes, but after the window's first frame.
void AppShellTest::theUpdateEngineWaitsForTheFirstFrame()
{
    if (EmberlaneUpdates::shared().engineLoaded())
        QSKIP("An earlier test of this run loaded the engine; ctest runs this test on its own too.");
    TestWorld world;
    writeAlpha(world);
    // Settings the engine starts with; its check goes to a loopback port that takes nothing.
    writeTestFile(world.resources() + u"/Info.plist"_s,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                  "<key>CFBundleIdentifier</key><string>org.kestrum.Veldspar.configure</string>\n"
                  "<key>CFBundleVersion</key><string>1.0</string>\n"
                  "<key>SUFeedURL</key><string>http://127.0.0.1:9/appcast.xml</string>\n"
                  "<key>SUPublicEDKey</key><string>AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=</string>\n"
                  "</dict>\n</plist>\n");
    storeAutomaticChecks(true);
    RunningApp app(world);
    QVERIFY(!EmberlaneUpdates::shared().engineLoaded());
    // What the window's first exposure finds: the frame is drawn before the engine loads.
    bool loadedAtFirstFrame = true;
    bool exposed = false;
    QWindow *handle = app.window()->windowHandle();
    QVERIFY(handle);
    if (handle->isExposed())
        QSKIP("This platform exposed the window before the event loop turned; nothing to tell apart.");
    EventRecorder recorder(handle, [&](QEvent *event) {
        if (event->type() == QEvent::Expose && handle->isExposed() && !exposed) {
            exposed = true;
            loadedAtFirstFrame = EmberlaneUpdates::shared().engineLoaded();
        }
    });
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QTRY_VERIFY(exposed);
    QVERIFY(!loadedAtFirstFrame);
    QTRY_VERIFY(EmberlaneUpdates::shared().engineLoaded());
}

void AppShellTest::theWindowIconComesAfterTheFirstFrame()
{
    TestWorld world;
    RunningApp app(world);
    QWindow *handle = app.window()->windowHandle();
    QVERIFY(handle);
    if (handle->isExposed())
        QSKIP("This platform exposed the window before the event loop turned; nothing to tell apart.");
    bool iconAtFirstFrame = true;
    bool exposed = false;
    EventRecorder recorder(handle, [&](QEvent *event) {
        if (event->type() == QEvent::Expose && handle->isExposed() && !exposed) {
            exposed = true;
            iconAtFirstFrame = !app.window()->windowIcon().isNull();
        }
    });
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QTRY_VERIFY(exposed);
    QVERIFY(!iconAtFirstFrame);
    // Then the app's own icon, drawn from the bundle's SVG at full size.
    QTRY_VERIFY(!app.window()->windowIcon().isNull());
    const QImage icon = app.window()->windowIcon().pixmap(QSize(256, 256)).toImage();
    QCOMPARE(icon.size(), QSize(256, 256) * app.window()->devicePixelRatio());
    QVERIFY(icon.pixelColor(icon.width() / 2, icon.height() / 2).alpha() > 0);
}

// The arrow the menu bar shows when the window is too narrow for its menus is the desktop
// style's own, though it is only loaded once it is drawn.
void AppShellTest::menuBarOverflowArrowIsTheStylesOwn()
{
    TestWorld world;
    RunningApp app(world);
    auto *style = qobject_cast<QProxyStyle *>(QApplication::style());
    QVERIFY2(style, "the app's style wraps the desktop's");
    for (const QStyle::StandardPixmap which :
         {QStyle::SP_ToolBarHorizontalExtensionButton, QStyle::SP_ToolBarVerticalExtensionButton}) {
        const QIcon arrow = style->standardIcon(which);
        const QIcon own = style->baseStyle()->standardIcon(which);
        QVERIFY(!own.isNull());
        QVERIFY(!arrow.isNull());
        QCOMPARE(arrow.actualSize(QSize(16, 16)), own.actualSize(QSize(16, 16)));
        QCOMPARE(arrow.pixmap(QSize(16, 16)).toImage(), own.pixmap(QSize(16, 16)).toImage());
        QCOMPARE(arrow.pixmap(QSize(16, 16), QIcon::Disabled).toImage(),
                 own.pixmap(QSize(16, 16), QIcon::Disabled).toImage());
        // A copy that is changed gets an engine of its own, once the arrow is loaded too.
        QIcon changed = arrow;
        changed.addPixmap(QPixmap(8, 8));
        QVERIFY(!changed.isNull());
        QCOMPARE(changed.pixmap(QSize(16, 16)).toImage(), own.pixmap(QSize(16, 16)).toImage());
    }
    // Every other icon comes from the desktop's style unchanged.
    QCOMPARE(style->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(QSize(32, 32)).toImage(),
             style->baseStyle()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(QSize(32, 32)).toImage());
}

void AppShellTest::bringingForwardRestoresAMinimisedWindow()
{
    TestWorld world;
    RunningApp app(world);
    QVERIFY(windowReady(app));
    app.window()->showMinimized();
    QTRY_VERIFY(app.window()->isMinimized());

    app.app().bringWindowForward();
    QVERIFY(!app.window()->isMinimized());
    QVERIFY(app.window()->isVisible());
}

// ---------------------------------------------------------------------------------------------
// Window and menus

void AppShellTest::shrinkingStopsAtTheMinimumContentSize()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QWidget *content = app.window()->centralWidget();
    QWidget *details = app.detailTitle()->parentWidget();

    app.window()->resize(300, 200);
    QTRY_COMPARE(content->size(), QSize(880, 580));
    QCOMPARE(app.table()->width(), 390);
    QVERIFY2(details->width() >= 300, qPrintable(QString::number(details->width())));

    // At the smallest size everything still fits: nothing leaves the content area and the
    // list keeps its minimum height.
    QVERIFY(app.table()->height() >= 320);
    const int statusBottom = app.status()->mapTo(content, QPoint(0, app.status()->height())).y();
    QVERIFY2(statusBottom <= content->height(), qPrintable(QString::number(statusBottom)));
    const int removeBottom = app.removeButton()->mapTo(content, QPoint(0, app.removeButton()->height())).y();
    QVERIFY(removeBottom <= app.table()->mapTo(content, QPoint(0, app.table()->height())).y());

    // Growing widens the details, never the list.
    app.window()->resize(1400, 900);
    QTRY_COMPARE(content->width(), 1400);
    QCOMPARE(app.table()->width(), 390);
    QCOMPARE(details->width(), 1400 - 24 - 24 - 390 - 20);
}

void AppShellTest::longStatusIsElidedOnOneLine()
{
    TestWorld world;
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    StatusLabel *status = app.status();
    const int lineHeight = status->height();
    const QSize contentSize = app.window()->centralWidget()->size();

    QString text = u"Reading radio details from "_s;
    for (int i = 0; i < 40; ++i)
        text += u"very-long-host-name-%1.example.net "_s.arg(i);
    text += ellipsis;
    status->setText(text);
    QApplication::processEvents();
    status->grab();

    const QString shown = status->displayedText();
    QVERIFY2(shown.endsWith(ellipsis), qPrintable(shown));
    QVERIFY(shown.size() < text.size());
    QVERIFY(text.startsWith(shown.chopped(1)));
    QVERIFY(shown.startsWith(u"Reading radio details from very-long-host-name-0"_s));
    QVERIFY(status->fontMetrics().horizontalAdvance(shown) <= status->contentsRect().width());
    // Still one line, and the window did not grow to make room.
    QCOMPARE(status->height(), lineHeight);
    QCOMPARE(status->width(), contentSize.width() - 48);
    QCOMPARE(app.window()->centralWidget()->size(), contentSize);
    QVERIFY(!status->wordWrap());

    // A short text is shown whole.
    status->setText(u"Configuration loaded"_s);
    QCOMPARE(status->displayedText(), u"Configuration loaded"_s);
}

void AppShellTest::everyDetailGetsItsFullHeightAtEverySize_data()
{
    QTest::addColumn<QSize>("contentSize");
    QTest::newRow("minimum") << QSize(880, 580);
    QTest::newRow("default") << QSize(960, 620);
    QTest::newRow("large") << QSize(1400, 900);
}

// Each text of the details panel is as tall as its font needs, one below the other, and the
// panel ends above the separator, at every size the window allows.
void AppShellTest::everyDetailGetsItsFullHeightAtEverySize()
{
    QFETCH(QSize, contentSize);
    TestWorld world;
    world.writeConfig(configWith({longestRadio()}));
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    app.window()->resize(contentSize.width(), contentSize.height() + app.window()->menuBar()->height());
    QWidget *content = app.window()->centralWidget();
    QTRY_COMPARE(content->size(), contentSize);
    QApplication::processEvents();

    QWidget *panel = app.detailTitle()->parentWidget();
    QList<QWidget *> items;
    for (QWidget *child : panel->findChildren<QWidget *>())
        if (child->isVisible() && (qobject_cast<QLabel *>(child) || qobject_cast<QAbstractButton *>(child)))
            items << child;
    // The title, five captions and values, the box with the announcement beside it, the button.
    QCOMPARE(items.size(), 1 + 2 * 5 + 3);
    const int tableBottom = app.table()->mapTo(content, QPoint(0, app.table()->height())).y();
    const auto placeOf = [content](QWidget *item) { return QRect(item->mapTo(content, QPoint()), item->size()); };
    for (QWidget *item : items) {
        const QString what = item->objectName() + u' ' + item->property("text").toString().left(20);
        QVERIFY2(item->height() >= item->sizeHint().height(),
                 qPrintable(u"%1: %2 of %3 px"_s.arg(what).arg(item->height()).arg(item->sizeHint().height())));
        const QRect place = placeOf(item);
        QVERIFY2(place.top() >= app.table()->mapTo(content, QPoint()).y() && place.bottom() < tableBottom,
                 qPrintable(u"%1 leaves the panel: %2..%3"_s.arg(what).arg(place.top()).arg(place.bottom())));
        QVERIFY2(place.right() < content->width() - 24, qPrintable(u"%1 runs past the panel"_s.arg(what)));
        for (QWidget *other : items)
            QVERIFY2(other == item || !place.intersects(placeOf(other)),
                     qPrintable(u"%1 overlaps %2"_s.arg(what, other->objectName())));
        // A text too long for the panel gives way at its end rather than being cut.
        if (auto *label = qobject_cast<QLabel *>(item))
            QVERIFY2(label->fontMetrics().horizontalAdvance(label->text()) <= label->contentsRect().width(),
                     qPrintable(u"%1 is cut"_s.arg(what)));
    }
}

void AppShellTest::ctrlQQuits()
{
    TestWorld world;
    RunningApp app(world);
    QVERIFY(windowReady(app));

    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    const int code = runEventLoop([&app] { QTest::keyClick(app.window(), Qt::Key_Q, Qt::ControlModifier); });
    QCOMPARE(code, 0);
    QCOMPARE(quitting.size(), 1);
}

void AppShellTest::editShortcutsActOnTheFocusedTextField()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QClipboard *clipboard = QGuiApplication::clipboard();

    // A value of the details panel: select it all, then copy it.
    QLabel *serial = app.value(u"serialNumber"_s);
    QTest::mouseClick(serial, Qt::LeftButton);
    QTRY_VERIFY(serial->hasFocus());
    QTest::keyClick(serial, Qt::Key_A, Qt::ControlModifier);
    QCOMPARE(serial->selectedText(), u"1234-5678-9012-3456"_s);
    QTest::keyClick(serial, Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(clipboard->text(), u"1234-5678-9012-3456"_s);
    // The value itself is not editable.
    QTest::keyClick(serial, Qt::Key_X, Qt::ControlModifier);
    QTest::keyClick(serial, Qt::Key_V, Qt::ControlModifier);
    QCOMPARE(serial->text(), u"1234-5678-9012-3456"_s);

    // The same through the Edit menu's items.
    clipboard->clear();
    QLabel *model = app.value(u"model"_s);
    model->setFocus();
    QTRY_VERIFY(model->hasFocus());
    menuItem(app.window(), u"Edit"_s, u"Select All"_s)->trigger();
    QCOMPARE(model->selectedText(), u"FLEX-6600"_s);
    menuItem(app.window(), u"Edit"_s, u"Copy"_s)->trigger();
    QCOMPARE(clipboard->text(), u"FLEX-6600"_s);

    // A text field of the window: the Edit items go to it while it has focus.
    auto *field = new QLineEdit(app.window()->centralWidget());
    field->show();
    field->setFocus();
    QTRY_VERIFY(field->hasFocus());
    QTest::keyClicks(field, u"10.0.0.7"_s);
    menuItem(app.window(), u"Edit"_s, u"Select All"_s)->trigger();
    QCOMPARE(field->selectedText(), u"10.0.0.7"_s);
    menuItem(app.window(), u"Edit"_s, u"Cut"_s)->trigger();
    QCOMPARE(field->text(), QString());
    QCOMPARE(clipboard->text(), u"10.0.0.7"_s);
    menuItem(app.window(), u"Edit"_s, u"Paste"_s)->trigger();
    menuItem(app.window(), u"Edit"_s, u"Paste"_s)->trigger();
    QCOMPARE(field->text(), u"10.0.0.710.0.0.7"_s);
    menuItem(app.window(), u"Edit"_s, u"Undo"_s)->trigger();
    QCOMPARE(field->text(), u"10.0.0.7"_s);
    clipboard->clear();
    menuItem(app.window(), u"Edit"_s, u"Select All"_s)->trigger();
    menuItem(app.window(), u"Edit"_s, u"Copy"_s)->trigger();
    QCOMPARE(clipboard->text(), u"10.0.0.7"_s);
    delete field;

    // The input field of a dialog, with the keyboard alone.
    QStringList seen;
    QTimer typist;
    typist.setInterval(10);
    QObject::connect(&typist, &QTimer::timeout, [&] {
        QWidget *modal = QApplication::activeModalWidget();
        auto *input = modal ? modal->findChild<QLineEdit *>() : nullptr;
        if (!input || !input->isVisible() || !input->hasFocus())
            return;
        typist.stop();
        QTest::keyClicks(input, u"192.168.1.50"_s);
        QTest::keyClick(input, Qt::Key_A, Qt::ControlModifier);
        seen << input->selectedText();
        QTest::keyClick(input, Qt::Key_X, Qt::ControlModifier);
        seen << input->text() << clipboard->text();
        QTest::keyClick(input, Qt::Key_V, Qt::ControlModifier);
        QTest::keyClick(input, Qt::Key_V, Qt::ControlModifier);
        seen << input->text();
        QTest::keyClick(input, Qt::Key_Z, Qt::ControlModifier);
        seen << input->text();
        clipboard->clear();
        QTest::keyClick(input, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(input, Qt::Key_C, Qt::ControlModifier);
        seen << clipboard->text();
        QTest::keyClick(input, Qt::Key_Return);
    });
    typist.start();
    const ModalWatchdog watchdog;
    QLineEdit address;
    const bool confirmed = app.app().dialog(u"Add a radio"_s, QString(), u"Address?"_s, true, &address);
    QVERIFY(confirmed);
    QCOMPARE(seen, (QStringList{u"192.168.1.50"_s, QString(), u"192.168.1.50"_s, u"192.168.1.50192.168.1.50"_s,
                                u"192.168.1.50"_s, u"192.168.1.50"_s}));
    QCOMPARE(address.text(), u"192.168.1.50"_s);
}

// ---------------------------------------------------------------------------------------------
// Radio table and details

void AppShellTest::noRadiosShowAnEmptyDisabledPanel()
{
    TestWorld world;
    RunningApp app(world);

    QCOMPARE(app.rowCount(), 0);
    QCOMPARE(app.selectedRow(), -1);
    QCOMPARE(app.detailTitle()->text(), u"Add your first radio"_s);
    for (const QString &key : detailKeys)
        QCOMPARE(app.value(key)->text(), emDash);
    QVERIFY(!app.includeBox()->isChecked());
    QVERIFY(!app.includeBox()->isEnabled());
    QVERIFY(!app.removeButton()->isEnabled());
}

void AppShellTest::radiosWithoutSelectionAskToSelectOne()
{
    TestWorld world;
    QJsonObject unnamed = fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, QString());
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s), unnamed}));
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QCOMPARE(app.selectedRow(), 0);

    // Control-click on the selected row takes the selection away.
    const QRect first = app.table()->visualRect(app.table()->model()->index(0, 0));
    QTest::mouseClick(app.table()->viewport(), Qt::LeftButton, Qt::ControlModifier, first.center());
    QCOMPARE(app.selectedRow(), -1);
    QCOMPARE(app.detailTitle()->text(), u"Select a radio"_s);
    for (const QString &key : detailKeys)
        QCOMPARE(app.value(key)->text(), emDash);
    QVERIFY(!app.includeBox()->isEnabled());
    QVERIFY(!app.includeBox()->isChecked());
    QVERIFY(!app.removeButton()->isEnabled());

    // A selected radio without a name asks the same.
    app.selectRow(1);
    QCOMPARE(app.selectedRow(), 1);
    QCOMPARE(app.detailTitle()->text(), u"Select a radio"_s);
    QCOMPARE(app.value(u"ipAddress"_s)->text(), u"10.0.0.2"_s);
    QVERIFY(app.includeBox()->isEnabled());
    QVERIFY(app.removeButton()->isEnabled());
}

void AppShellTest::removingTheSelectedLastOfThreeSelectsTheSecond()
{
    TestWorld world;
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s),
                                  fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s),
                                  fullRadio(u"10.0.0.3"_s, u"3234-5678-9012-3456"_s, u"Charlie"_s)}));
    DialogAnswerer answerer;
    RunningApp app(world);
    QVERIFY(windowReady(app));
    app.selectRow(2);
    QCOMPARE(app.detailTitle()->text(), u"Charlie"_s);

    app.click(app.removeButton());
    QCOMPARE(app.selectedRow(), 1);
    QVERIFY(app.waitUntilIdle());

    QCOMPARE(answerer.shown().size(), 0);
    QCOMPARE(app.rowCount(), 2);
    QCOMPARE(app.selectedRow(), 1);
    QCOMPARE(app.detailTitle()->text(), u"Bravo"_s);
    QCOMPARE(app.value(u"ipAddress"_s)->text(), u"10.0.0.2"_s);
    QVERIFY(app.removeButton()->isEnabled());
    QCOMPARE(app.statusText(), u"Saved. Previous configuration backed up; running service reloads automatically."_s);
    const QJsonArray saved = parseObject(world.readConfig()).value(u"radios"_s).toArray();
    QCOMPARE(saved.size(), 2);
    QCOMPARE(saved.at(0).toObject().value(u"name"_s).toString(), u"Alpha"_s);
    QCOMPARE(saved.at(1).toObject().value(u"name"_s).toString(), u"Bravo"_s);
}

void AppShellTest::enabledAsTextCountsAsDisabled()
{
    TestWorld world;
    QJsonObject textual = fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s);
    textual.insert(u"enabled"_s, u"true"_s);
    world.writeConfig(configWith({textual}));
    RunningApp app(world);

    QCOMPARE(app.rowTexts(0), (QStringList{u"Alpha"_s, u"10.0.0.1  \u00B7  Disabled"_s}));
    QCOMPARE(app.selectedRow(), 0);
    QVERIFY(app.includeBox()->isEnabled());
    QVERIFY(!app.includeBox()->isChecked());
}

void AppShellTest::unnamedRadioShowsRadio()
{
    TestWorld world;
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, QString())}));
    RunningApp app(world);

    QCOMPARE(app.rowTexts(0), (QStringList{u"Radio"_s, u"10.0.0.1  \u00B7  Enabled"_s}));
}

// A name or value wider than the panel ends in "…" where it is cut, as the list's rows do;
// the whole text is in its tool tip, is what a screen reader says, and is what Copy copies.
void AppShellTest::longNamesAndValuesGiveWayWithAnEllipsis()
{
    const QString name = u"Contest station at the northern remote site, rack two"_s; // written by hand
    const QString address = u"remote-shack-"_s + QString(80, u'x') + u".example.net"_s;
    TestWorld world;
    world.writeConfig(configWith({fullRadio(address, u"1234-5678-9012-3456"_s, name)}));
    RunningApp app(world);
    QVERIFY(windowReady(app));
    app.window()->resize(880, 580 + app.window()->menuBar()->height());
    QTRY_COMPARE(app.window()->centralWidget()->size(), QSize(880, 580));

    const auto checkGivesWay = [](QLabel *label, const QString &whole, const QString &spoken) {
        QTRY_VERIFY2(label->text().endsWith(ellipsis), qPrintable(label->text()));
        QVERIFY(label->text().size() > 1);
        QVERIFY(whole.startsWith(label->text().chopped(1)));
        QVERIFY(label->fontMetrics().horizontalAdvance(label->text()) <= label->contentsRect().width());
        QCOMPARE(label->toolTip(), whole);
        QCOMPARE(accessible(label)->text(QAccessible::Name), spoken);
    };
    checkGivesWay(app.detailTitle(), name, name);
    QLabel *shownAddress = app.value(u"ipAddress"_s);
    checkGivesWay(shownAddress, address, u"IP address: "_s + address);

    // Everything selected and copied is the whole address, by the Edit menu and by the key.
    QClipboard *clipboard = QGuiApplication::clipboard();
    shownAddress->setFocus(Qt::TabFocusReason);
    menuItem(app.window(), u"Edit"_s, u"Select All"_s)->trigger();
    menuItem(app.window(), u"Edit"_s, u"Copy"_s)->trigger();
    QCOMPARE(clipboard->text(), address);
    clipboard->clear();
    QTest::keySequence(shownAddress, QKeySequence::Copy);
    QCOMPARE(clipboard->text(), address);

    // Wide enough again, the name is whole and needs no tool tip.
    app.window()->resize(1600, 620 + app.window()->menuBar()->height());
    QTRY_COMPARE(app.detailTitle()->text(), name);
    QVERIFY(app.detailTitle()->toolTip().isEmpty());
}

void AppShellTest::numericFirmwareShowsADash()
{
    TestWorld world;
    QJsonObject numeric = fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s);
    numeric.insert(u"version"_s, 3.3);
    world.writeConfig(configWith({numeric}));
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));

    QCOMPARE(app.selectedRow(), 0);
    QCOMPARE(app.value(u"version"_s)->text(), emDash);
    QCOMPARE(app.value(u"model"_s)->text(), u"FLEX-6600"_s);
    auto *firmware = labelWithText(app.window()->centralWidget(), u"FIRMWARE"_s);
    QVERIFY(firmware && firmware->isVisible());
}

void AppShellTest::everyWayOfChangingTheIncludeBoxSavesOnce()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QCheckBox *box = app.includeBox();
    QVERIFY(box->isChecked());
    // A check box offers toggling; pressing is still carried out when asked for.
    QVERIFY(accessible(box)->actionInterface()->actionNames().contains(QAccessibleActionInterface::toggleAction()));

    const struct
    {
        QString way;
        std::function<void()> change;
    } ways[] = {
        {u"mouse click"_s, [&] { app.click(box); }},
        {u"Space key"_s,
         [&] {
             box->setFocus(Qt::TabFocusReason);
             QTest::keyClick(box, Qt::Key_Space);
         }},
        {u"accessibility press"_s, [&] { doAccessibleAction(box, QAccessibleActionInterface::pressAction()); }},
        {u"accessibility toggle"_s, [&] { doAccessibleAction(box, QAccessibleActionInterface::toggleAction()); }},
    };
    bool included = true;
    qsizetype saves = 0;
    for (const auto &way : ways) {
        way.change();
        if (QTest::currentTestFailed())
            return;
        included = !included;
        // The press is animated: it lands a moment later.
        QTRY_COMPARE_WITH_TIMEOUT(app.app().isBusy() || world.importedFiles().size() > saves, true, 2000);
        QVERIFY(app.waitUntilIdle());
        settle();
        QVERIFY2(world.importedFiles().size() == saves + 1,
                 qPrintable(u"%1: %2 saves"_s.arg(way.way).arg(world.importedFiles().size() - saves)));
        saves = world.importedFiles().size();
        QVERIFY2(savedAsEnabled(world, 0) == included, qPrintable(way.way));
        QCOMPARE(app.statusText(), u"Saved. Previous configuration backed up; running service reloads automatically."_s);
        QCOMPARE(app.rowTexts(0).at(1), included ? u"10.0.0.1  \u00B7  Enabled"_s : u"10.0.0.1  \u00B7  Disabled"_s);
        QCOMPARE(box->isChecked(), included);
    }
}

void AppShellTest::showingAnotherStateInTheIncludeBoxDoesNotSave()
{
    TestWorld world;
    QJsonObject bravo = fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s);
    bravo.insert(u"enabled"_s, false);
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s), bravo}));
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QVERIFY(app.includeBox()->isChecked());

    // Selecting a radio that is left out shows the box off.
    app.selectRow(1);
    QVERIFY(!app.includeBox()->isChecked());
    app.selectRow(0);
    QVERIFY(app.includeBox()->isChecked());

    // Someone else leaves Alpha out; Reload shows it.
    QJsonObject alpha = fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s);
    alpha.insert(u"enabled"_s, false);
    const QByteArray changed = configWith({alpha, bravo});
    world.writeConfig(changed);
    app.click(app.button(u"Reload"_s));
    QVERIFY(!app.includeBox()->isChecked());
    settle();
    QVERIFY(app.waitUntilIdle());

    QCOMPARE(world.importedFiles().size(), 0);
    QCOMPARE(world.calls().size(), 0);
    QCOMPARE(world.readConfig(), changed);
    QCOMPARE(app.statusText(), u"Configuration loaded"_s);
}

void AppShellTest::whileBusyTheIncludeBoxReturnsToTheEntry()
{
    TestWorld world;
    holdBravosProbe(world);
    DialogAnswerer answerer;
    RunningApp app(world);
    const ReleaseOnExit releaseOnExit{world};
    QVERIFY(windowReady(app));
    QCheckBox *box = app.includeBox();

    // Leaving Alpha out starts a save that waits for Bravo.
    app.click(box);
    QVERIFY(app.app().isBusy());
    QVERIFY(!box->isChecked());
    const QString draft = app.app().draftText();

    // Neither the toggle nor the press of assistive technology nor Space changes anything now.
    doAccessibleAction(box, QAccessibleActionInterface::toggleAction());
    QVERIFY(!box->isChecked());
    QVERIFY(!accessible(box)->state().checked);
    doAccessibleAction(box, QAccessibleActionInterface::pressAction());
    settle(400);
    QVERIFY(!box->isChecked());
    box->setFocus(Qt::TabFocusReason);
    QTest::keyClick(box, Qt::Key_Space);
    QVERIFY(!box->isChecked());
    QCOMPARE(app.app().draftText(), draft);
    QCOMPARE(app.rowTexts(0).at(1), u"10.0.0.1  \u00B7  Disabled"_s);

    // The held save ends and writes Alpha left out, once.
    world.release();
    QVERIFY(app.waitUntilIdle());
    settle();
    QCOMPARE(world.importedFiles().size(), 1);
    QVERIFY(!savedAsEnabled(world, 0));
    QVERIFY(!box->isChecked());
    QVERIFY(answerer.shown().isEmpty());
}

// ---------------------------------------------------------------------------------------------
// Accessibility and keyboard

void AppShellTest::radioListReadsNameAddressAndState()
{
    TestWorld world;
    QJsonObject bravo = fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s);
    bravo.insert(u"enabled"_s, false);
    QJsonObject unnamed = fullRadio(u"10.0.0.3"_s, u"3234-5678-9012-3456"_s, QString());
    unnamed.remove(u"ipAddress"_s);
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s), bravo, unnamed}));
    RunningApp app(world);
    QVERIFY(windowReady(app));

    QAccessibleInterface *list = accessible(app.table());
    QVERIFY(list);
    QCOMPARE(list->text(QAccessible::Name), u"Radios"_s);
    QCOMPARE(list->text(QAccessible::Description),
             u"The radios made discoverable on the local network; the selected one is shown beside the list."_s);
    QAccessibleTableInterface *rows = list->tableInterface();
    QVERIFY(rows);
    QCOMPARE(rows->rowCount(), 3);
    QCOMPARE(rows->columnCount(), 1);

    // No service runs here: each row also says what that means for the radio.
    const QStringList names = {u"Alpha, 10.0.0.1, Enabled, Not announced: the service is not running"_s,
                               u"Bravo, 10.0.0.2, Disabled, Not announced: excluded from discovery"_s,
                               u"Radio, Enabled, Not announced: the service is not running"_s};
    const QStringList descriptions = {u"10.0.0.1  \u00B7  Enabled"_s, u"10.0.0.2  \u00B7  Disabled"_s,
                                      u"  \u00B7  Enabled"_s};
    for (int row = 0; row < 3; ++row) {
        QAccessibleInterface *cell = rows->cellAt(row, 0);
        QVERIFY(cell);
        QCOMPARE(cell->text(QAccessible::Name), names.at(row));
        QCOMPARE(cell->text(QAccessible::Description), descriptions.at(row));
        QCOMPARE(cell->text(QAccessible::Description), app.rowTexts(row).at(1));
    }
    // The same cells as children of the list, which is how a screen reader walks it.
    QStringList childNames;
    for (int i = 0; i < list->childCount(); ++i)
        if (QAccessibleInterface *child = list->child(i); child && child->role() == QAccessible::ListItem)
            childNames << child->text(QAccessible::Name);
    QCOMPARE(childNames, names);

    // After Alpha is left out elsewhere and reloaded, its cell says so.
    QJsonObject alpha = fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s);
    alpha.insert(u"enabled"_s, false);
    world.writeConfig(configWith({alpha}));
    app.click(app.button(u"Reload"_s));
    // A live accessibility bridge hears of the reset from the view and drops the cells it
    // handed out; the offscreen platform has no bridge, so the notice is passed on here.
    QAccessibleTableModelChangeEvent reset(app.table(), QAccessibleTableModelChangeEvent::ModelReset);
    rows->modelChange(&reset);
    QCOMPARE(rows->rowCount(), 1);
    QCOMPARE(rows->cellAt(0, 0)->text(QAccessible::Name), u"Alpha, 10.0.0.1, Disabled, Not announced: excluded from discovery"_s);
    QCOMPARE(rows->cellAt(0, 0)->text(QAccessible::Description), u"10.0.0.1  \u00B7  Disabled"_s);
}

void AppShellTest::detailValuesAreLabelledByTheirCaptions()
{
    TestWorld world;
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"0621-1104-7402-0001"_s, u"Alpha"_s),
                                  radio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s)}));
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QWidget *content = app.window()->centralWidget();

    const QStringList captions = {u"MODEL"_s, u"IP ADDRESS"_s, u"SERIAL NUMBER"_s, u"CALLSIGN"_s, u"FIRMWARE"_s};
    const QStringList spoken = {u"Model"_s, u"IP address"_s, u"Serial number"_s, u"Callsign"_s, u"Firmware"_s};
    const QStringList alpha = {u"FLEX-6600"_s, u"10.0.0.1"_s, u"0621-1104-7402-0001"_s, u"KE5ABC"_s, u"3.3.32.8203"_s};
    const QStringList bravo = {emDash, u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, emDash, u"3.3.32.8203"_s};
    for (qsizetype i = 0; i < captions.size(); ++i) {
        QLabel *caption = labelWithText(content, captions.at(i));
        QLabel *value = app.value(detailKeys.at(i));
        QVERIFY(caption && value);
        QAccessibleInterface *captionFace = accessible(caption);
        QAccessibleInterface *valueFace = accessible(value);
        // The caption is the label of the value, and the value is what the caption labels.
        QCOMPARE(related(valueFace, QAccessible::Label), QList<QObject *>{caption});
        QCOMPARE(related(captionFace, QAccessible::Labelled), QList<QObject *>{value});
        QCOMPARE(captionFace->text(QAccessible::Name), captions.at(i));
        QCOMPARE(valueFace->text(QAccessible::Name), spoken.at(i) + u": "_s + alpha.at(i));
        QCOMPARE(value->text(), alpha.at(i)); // what is shown stays the bare value
    }
    QCOMPARE(accessible(app.value(u"serialNumber"_s))->text(QAccessible::Name),
             u"Serial number: 0621-1104-7402-0001"_s);

    // The names follow the selection.
    app.selectRow(1);
    for (qsizetype i = 0; i < captions.size(); ++i)
        QCOMPARE(accessible(app.value(detailKeys.at(i)))->text(QAccessible::Name), spoken.at(i) + u": "_s + bravo.at(i));
    app.selectRow(-1);
    for (qsizetype i = 0; i < captions.size(); ++i)
        QCOMPARE(accessible(app.value(detailKeys.at(i)))->text(QAccessible::Name), spoken.at(i) + u": "_s + emDash);
}

void AppShellTest::controlsHaveAccessibleNames()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(windowReady(app));

    QCOMPARE(accessible(app.detailTitle())->text(QAccessible::Name), u"Alpha"_s);
    QCOMPARE(accessible(app.detailTitle())->role(), QAccessible::StaticText);
    QCOMPARE(accessible(app.includeBox())->text(QAccessible::Name), u"Include in discovery"_s);
    QCOMPARE(accessible(app.includeBox())->role(), QAccessible::CheckBox);
    QVERIFY(accessible(app.includeBox())->state().checked);
    for (const QString &title : {u"Add Radio\u2026"_s, u"Import\u2026"_s, u"Delete Config"_s, u"Reload"_s,
                                 u"Remove Radio"_s, u"Uninstall"_s, u"Show Files"_s}) {
        QAccessibleInterface *face = accessible(app.button(title));
        QVERIFY2(face, qPrintable(title));
        QCOMPARE(face->text(QAccessible::Name), title);
        QCOMPARE(face->role(), QAccessible::Button);
    }
    for (const QString &name : {u"serviceState"_s, u"serviceStartup"_s}) {
        QLabel *text = app.window()->findChild<QLabel *>(name);
        QVERIFY(text);
        QCOMPARE(accessible(text)->text(QAccessible::Name), text->text());
        QVERIFY(!text->text().isEmpty());
    }

    // The service button says its title and what pressing it does, and keeps any reason it
    // cannot be pressed.
    ServiceButton *service = app.serviceButton();
    QAccessibleInterface *face = accessible(service);
    QCOMPARE(face->role(), QAccessible::Button);
    QCOMPARE(face->text(QAccessible::Name), service->text());
    const QString purpose = u"Starts the background service and sets it to start at login; while it runs, stops it and "
                            u"turns login start off."_s;
    QCOMPARE(face->text(QAccessible::Description), purpose);
    app.click(app.removeButton());
    QVERIFY(app.waitUntilIdle());
    QCOMPARE(service->toolTip(), u"Add or import a radio before enabling the service."_s);
    QCOMPARE(face->text(QAccessible::Description),
             purpose + u" Add or import a radio before enabling the service."_s);
    QCOMPARE(accessible(app.detailTitle())->text(QAccessible::Name), u"Add your first radio"_s);
}

void AppShellTest::wholeWindowWorksByKeyboard()
{
    TestWorld world;
    world.writeConfig(configWith({fullRadio(u"10.0.0.1"_s, u"1234-5678-9012-3456"_s, u"Alpha"_s),
                                  fullRadio(u"10.0.0.2"_s, u"2234-5678-9012-3456"_s, u"Bravo"_s)}));
    RunningApp app(world);
    QVERIFY(windowReady(app));
    QVERIFY(app.serviceButton()->isEnabled());

    const QList<QWidget *> chain = {
        app.button(u"Add Radio\u2026"_s), app.button(u"Import\u2026"_s), app.button(u"Delete Config"_s),
        app.button(u"Reload"_s),           app.table(),                   app.value(u"model"_s),
        app.value(u"ipAddress"_s),         app.value(u"serialNumber"_s),  app.value(u"callsign"_s),
        app.value(u"version"_s),           app.includeBox(),               app.announcementLine(),
        app.removeButton(),
        app.serviceButton(),               app.button(u"Uninstall"_s),    app.button(u"Show Files"_s),
    };
    chain.first()->setFocus(Qt::TabFocusReason);
    QTRY_COMPARE(QApplication::focusWidget(), chain.first());
    for (qsizetype i = 1; i <= chain.size(); ++i) {
        QWidget *expected = chain.at(i % chain.size()); // after the last, round to the first
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        QVERIFY2(QApplication::focusWidget() == expected,
                 qPrintable(u"step %1: %2 instead of %3"_s.arg(i).arg(nameOf(QApplication::focusWidget()),
                                                                      nameOf(expected))));
        if (expected == app.table()) {
            // Arrows move the selection, and the details follow.
            QCOMPARE(app.selectedRow(), 0);
            QTest::keyClick(app.table(), Qt::Key_Down);
            QCOMPARE(app.selectedRow(), 1);
            QCOMPARE(app.detailTitle()->text(), u"Bravo"_s);
            QTest::keyClick(app.table(), Qt::Key_Up);
            QCOMPARE(app.selectedRow(), 0);
            QCOMPARE(app.detailTitle()->text(), u"Alpha"_s);
            QCOMPARE(QApplication::focusWidget(), app.table());
        }
    }
    // And back.
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Backtab);
    QCOMPARE(QApplication::focusWidget(), chain.last());

    // Space on the check box leaves the selected radio out and saves.
    app.includeBox()->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(app.includeBox()->hasFocus());
    QTest::keyClick(app.includeBox(), Qt::Key_Space);
    QVERIFY(!app.includeBox()->isChecked());
    QVERIFY(app.waitUntilIdle());
    QCOMPARE(world.importedFiles().size(), 1);
    QVERIFY(!savedAsEnabled(world, 0));
    QVERIFY(savedAsEnabled(world, 1));
}

// ---------------------------------------------------------------------------------------------
// Service button

void AppShellTest::inactiveButtonIsPaleRedWithRedTitleCentred()
{
    TestWorld world;
    RunningApp app(world);
    ServiceButton *button = app.serviceButton();
    QCOMPARE(button->text(), u"Checking\u2026"_s);
    QVERIFY(!button->active());

    for (const QColor &background : {QColor(Qt::white), QColor(0x31, 0x36, 0x3B)}) {
        const QImage image = rendered(button, background);
        const QColor fill = blended(danger, fillAlpha, background);
        // Above and below the title, the face is the pale fill.
        QVERIFY2(near(image.pixelColor(50, 2), fill, 2), qPrintable(image.pixelColor(50, 2).name()));
        QVERIFY(near(image.pixelColor(50, 27), fill, 2));
        QVERIFY(near(image.pixelColor(9, 2), fill, 2));
        QVERIFY(near(image.pixelColor(90, 27), fill, 2));
        // Inset by one and rounded: the outer ring and the corners show the background.
        for (int x = 0; x < 100; ++x) {
            QCOMPARE(image.pixelColor(x, 0), background);
            QCOMPARE(image.pixelColor(x, 29), background);
        }
        for (int y : {0, 1, 2, 3, 26, 27, 28, 29}) {
            QCOMPARE(image.pixelColor(0, y), background);
            QCOMPARE(image.pixelColor(99, y), background);
        }
        for (const QPoint &corner : {QPoint(1, 1), QPoint(98, 1), QPoint(1, 28), QPoint(98, 28)})
            QCOMPARE(image.pixelColor(corner), background);

        // The title is the tint itself, anti-aliased into the fill, centred both ways.
        const Face face = faceOf(image, fill, danger);
        QVERIFY2(face.foreignPixels == 0, qPrintable(face.firstForeign.name()));
        QVERIFY(face.fullTintPixels > 10);
        QVERIFY(face.ink.width() > 40);
        QVERIFY2(qAbs(middleX(face.ink) - 49.5) <= 2, qPrintable(QString::number(middleX(face.ink))));
        QVERIFY2(qAbs(middleY(face.ink) - 14.5) <= 3, qPrintable(QString::number(middleY(face.ink))));
    }
}

void AppShellTest::activeButtonTurnsGreenAtTheNextRedraw()
{
    TestWorld world;
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    // A button of its own, dressed like the app's: the app's button follows the service's state,
    // whose answers would turn it red again while this test waits for paints.
    ServiceButton own(app.serviceButton()->text());
    own.setFixedSize(app.serviceButton()->size());
    own.show();
    QVERIFY(QTest::qWaitForWindowExposed(&own));
    ServiceButton *button = &own;

    // Each assignment repaints, even of the value it already has.
    struct Counter : QObject
    {
        int paints = 0;
        bool eventFilter(QObject *, QEvent *event) override
        {
            if (event->type() == QEvent::Paint)
                ++paints;
            return false;
        }
    } counter;
    button->installEventFilter(&counter);
    button->setActive(true);
    QTRY_VERIFY(counter.paints > 0);
    counter.paints = 0;
    button->setActive(true);
    QTRY_VERIFY(counter.paints > 0);
    button->removeEventFilter(&counter);

    const QColor background(Qt::white);
    const QImage image = rendered(button, background);
    const QColor fill = blended(success, fillAlpha, background);
    QVERIFY2(near(image.pixelColor(50, 2), fill, 2), qPrintable(image.pixelColor(50, 2).name()));
    const Face face = faceOf(image, fill, success);
    QVERIFY2(face.foreignPixels == 0, qPrintable(face.firstForeign.name()));
    QVERIFY(face.fullTintPixels > 10);
    QVERIFY(qAbs(middleX(face.ink) - 49.5) <= 2);

    // And back to red.
    button->setActive(false);
    const QImage red = rendered(button, background);
    QVERIFY(near(red.pixelColor(50, 2), blended(danger, fillAlpha, background), 2));
    QCOMPARE(faceOf(red, blended(danger, fillAlpha, background), danger).foreignPixels, 0);
}

void AppShellTest::disabledButtonKeepsItsColours()
{
    TestWorld world;
    RunningApp app(world);
    ServiceButton *button = app.serviceButton();
    QVERIFY(!button->isEnabled());

    for (bool active : {false, true}) {
        button->setActive(active);
        button->setEnabled(false);
        const QImage disabled = rendered(button, Qt::white);
        button->setEnabled(true);
        const QImage enabled = rendered(button, Qt::white);
        QCOMPARE(disabled, enabled);
        const QColor tint = active ? success : danger;
        const Face face = faceOf(disabled, blended(tint, fillAlpha, Qt::white), tint);
        QCOMPARE(face.foreignPixels, 0);
        QVERIFY(face.fullTintPixels > 10);
    }
}

void AppShellTest::wideTitleIsNeitherCutNorScaledButCentred()
{
    // The arithmetic: the text box is centred, so a wider text starts left of the button.
    QCOMPARE(ServiceButton::titleOrigin(QSizeF(100, 30), QSizeF(160, 18)), QPointF(-30, 6));
    QCOMPARE(ServiceButton::titleOrigin(QSizeF(100, 30), QSizeF(60, 18)), QPointF(20, 6));

    TestWorld world;
    RunningApp app(world);
    ServiceButton *button = app.serviceButton();
    const QString title = u"Service unavailable right now"_s;
    button->setText(title);
    const qreal textWidth = QFontMetricsF(button->titleFont()).horizontalAdvance(title);
    QVERIFY(textWidth > 100);
    const QImage narrow = rendered(button, Qt::white);

    // The same title on a button wide enough for it: the narrow button shows exactly the middle
    // of it, unscaled and without an ellipsis.
    ServiceButton wide(title);
    wide.setFixedSize(400, 30);
    const QImage whole = rendered(&wide, Qt::white);
    const QColor fill = blended(danger, fillAlpha, Qt::white);
    const Face wholeFace = faceOf(whole, fill, danger);
    QCOMPARE(wholeFace.foreignPixels, 0);
    QVERIFY(qAbs(middleX(wholeFace.ink) - 199.5) <= 2);
    QVERIFY(wholeFace.ink.width() > 100);
    // Glyphs are placed at sub-pixel positions rounded from absolute coordinates, so the same
    // text 150 pixels further right may shade its edges a little differently. A scaled or cut
    // title would move whole glyph edges by a pixel or more, which shows as a full-contrast
    // difference; coverage noise stays far below that.
    int worst = 0;
    for (int y = 3; y < 27; ++y) {
        for (int x = 3; x < 97; ++x) {
            const QColor shown = narrow.pixelColor(x, y);
            const QColor middle = whole.pixelColor(x + 150, y);
            worst = qMax(worst, qMax(qAbs(shown.red() - middle.red()),
                                     qMax(qAbs(shown.green() - middle.green()), qAbs(shown.blue() - middle.blue()))));
        }
    }
    QVERIFY2(worst <= 64, qPrintable(u"largest difference %1 of 255"_s.arg(worst)));
    // The ink runs off both sides of the narrow button.
    const Face narrowFace = faceOf(narrow, fill, danger);
    QCOMPARE(narrowFace.foreignPixels, 0);
    bool inkAtLeft = false;
    bool inkAtRight = false;
    for (int y = 8; y < 22; ++y) {
        for (int x = 2; x < 8; ++x) {
            inkAtLeft = inkAtLeft || near(narrow.pixelColor(x, y), danger, 40);
            inkAtRight = inkAtRight || near(narrow.pixelColor(99 - x, y), danger, 40);
        }
    }
    QVERIFY(inkAtLeft);
    QVERIFY(inkAtRight);
}

void AppShellTest::focusedButtonShowsARing()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(windowReady(app));
    ServiceButton *button = app.serviceButton();
    QVERIFY(button->isEnabled());
    // The first status answer renames the button; both pictures must show the same title.
    QVERIFY(app.waitForServiceStatus());
    const QColor ring = button->palette().color(QPalette::Highlight);
    const QColor background(Qt::white);

    app.removeButton()->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(app.removeButton()->hasFocus());
    const QImage plain = rendered(button, background);
    button->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(button->hasFocus());
    const QImage focused = rendered(button, background);

    // Along the straight parts of every edge, the two outer pixels are the highlight colour;
    // without focus they are the background and the fill.
    const QList<QPoint> edge = {QPoint(50, 0), QPoint(50, 1), QPoint(50, 28), QPoint(50, 29), QPoint(20, 0),
                                QPoint(80, 29), QPoint(0, 15), QPoint(1, 15), QPoint(98, 15), QPoint(99, 15)};
    for (const QPoint &at : edge) {
        QVERIFY2(near(focused.pixelColor(at), ring, 24),
                 qPrintable(u"(%1,%2) %3"_s.arg(at.x()).arg(at.y()).arg(focused.pixelColor(at).name())));
        QVERIFY(!near(plain.pixelColor(at), ring, 24));
    }
    QCOMPARE(plain.pixelColor(50, 0), background);
    // Inside the ring nothing changes: the fill and the title are drawn as before. (At the
    // rounded corners, radius 7, the ring bends inwards.)
    for (int y = 3; y < 27; ++y)
        for (int x = 3; x < 97; ++x)
            if ((x >= 8 && x < 92) || (y >= 8 && y < 22))
                QVERIFY2(focused.pixelColor(x, y) == plain.pixelColor(x, y), qPrintable(u"(%1,%2)"_s.arg(x).arg(y)));

    // Focus leaves, and so does the ring.
    app.removeButton()->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(!button->hasFocus());
    QCOMPARE(rendered(button, background), plain);
}

void AppShellTest::tabReachesTheEnabledButton()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(windowReady(app));
    ServiceButton *button = app.serviceButton();
    QVERIFY(button->isEnabled());

    app.removeButton()->setFocus(Qt::TabFocusReason);
    QTRY_VERIFY(app.removeButton()->hasFocus());
    QTest::keyClick(app.removeButton(), Qt::Key_Tab);
    QVERIFY(button->hasFocus());
    QTest::keyClick(button, Qt::Key_Backtab);
    QVERIFY(app.removeButton()->hasFocus());

    // A disabled button is passed over.
    button->setEnabled(false);
    QTest::keyClick(app.removeButton(), Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget(), app.button(u"Uninstall"_s));
}

// ---------------------------------------------------------------------------------------------
// Dialogs

void AppShellTest::alertIsOneLabelHighWithOkCentred()
{
    TestWorld world;
    RunningApp app(world);
    DialogAnswerer answerer;

    app.app().alert(u"Save failed."_s);

    QCOMPARE(answerer.shown().size(), 1);
    const ShownDialog &shown = answerer.shown().first();
    QCOMPARE(shown.texts, QStringList{u"Save failed."_s});
    QVERIFY(!shown.hasCancel);
    QVERIFY(!shown.hasInput);
    QCOMPARE(shown.textFrames.size(), 1);
    const QRect label = shown.textFrames.first();
    QCOMPARE(shown.size, QSize(460, 156 + label.height() + 12));
    // One line: the label needs no more than it has, and less than two lines would take.
    QVERIFY(shown.textHeightsNeeded.first() <= label.height());
    const QFont titleFont = systemFont(15, QFont::DemiBold);
    QVERIFY(label.height() < 2 * QFontMetrics(titleFont).lineSpacing() + 10);
    QCOMPARE(label, QRect(32, 104, 396, label.height()));
    QCOMPARE(shown.okButton, QRect(186, shown.size.height() - 20 - 32, 88, 32));
    QCOMPARE(shown.okButton.x() * 2 + shown.okButton.width(), shown.size.width());
    QVERIFY(shown.cancelButton.isNull());
}

void AppShellTest::emptyDialogShowsOnlyIconAndButton()
{
    TestWorld world;
    RunningApp app(world);
    DialogAnswerer answerer;

    QVERIFY(app.app().dialog(QString(), QString(), QString(), false, nullptr));

    QCOMPARE(answerer.shown().size(), 1);
    const ShownDialog &shown = answerer.shown().first();
    QCOMPARE(shown.size, QSize(460, 156));
    QVERIFY(shown.texts.isEmpty());
    QVERIFY(shown.textFrames.isEmpty());
    QVERIFY(!shown.hasInput);
    QVERIFY(!shown.hasCancel);
    QCOMPARE(shown.icon, QRect(198, 24, 64, 64));
    QCOMPARE(shown.okButton, QRect(186, 104, 88, 32));
}

void AppShellTest::longDetailWrapsAndGrowsThePanel()
{
    TestWorld world;
    RunningApp app(world);
    DialogAnswerer answerer;

    QString detail;
    for (int i = 0; i < 60; ++i)
        detail += u"The service executable printed line %1 of its output before it stopped. "_s.arg(i + 1);
    app.app().alert(u"Save failed."_s);
    app.app().dialog(u"Save failed."_s, detail, QString(), false, nullptr);

    QCOMPARE(answerer.shown().size(), 2);
    const ShownDialog &shortOne = answerer.shown().at(0);
    const ShownDialog &shown = answerer.shown().at(1);
    QCOMPARE(shown.texts, (QStringList{u"Save failed."_s, detail}));
    QCOMPARE(shown.textFrames.size(), 2);
    const QRect title = shown.textFrames.at(0);
    const QRect wrapped = shown.textFrames.at(1);
    QCOMPARE(wrapped.x(), 32);
    QCOMPARE(wrapped.width(), 396);
    QCOMPARE(wrapped.top(), title.bottom() + 1 + 12);
    // The whole text fits in its label: nothing is cut, nothing scrolls.
    QVERIFY2(shown.textHeightsNeeded.at(1) <= wrapped.height(),
             qPrintable(u"%1 > %2"_s.arg(shown.textHeightsNeeded.at(1)).arg(wrapped.height())));
    QVERIFY(wrapped.height() > 20 * title.height());
    QCOMPARE(shown.size, QSize(460, 156 + title.height() + 12 + wrapped.height() + 12));
    QVERIFY(shown.size.height() > 1000);
    QVERIFY(shown.size.height() > shortOne.size.height() + wrapped.height());
    QCOMPARE(shown.okButton.top(), wrapped.bottom() + 1 + 12);
}

void AppShellTest::returnInTheInputFieldConfirms()
{
    TestWorld world;
    RunningApp app(world);
    DialogAnswerer answerer;
    answerer.willPress(u"Return"_s, u"192.168.1.50"_s);
    const ModalWatchdog watchdog;

    QPointer<QLineEdit> field = new QLineEdit;
    field->setPlaceholderText(u"192.168.1.100"_s);
    const bool confirmed = app.app().dialog(u"Add Radio"_s, u"Enter the address of the radio."_s, QString(), true,
                                            field);

    QVERIFY(confirmed);
    QCOMPARE(answerer.shown().size(), 1);
    QVERIFY(answerer.shown().first().inputFocused);
    QVERIFY(answerer.shown().first().hasCancel);
    // The field is still the caller's, holding what was typed.
    QVERIFY(field);
    QCOMPARE(field->text(), u"192.168.1.50"_s);
    delete field;
}

void AppShellTest::cancelEscapeAndOtherEndingsReturnFalse()
{
    TestWorld world;
    RunningApp app(world);

    {
        const ModalWatchdog watchdog;
        DialogAnswerer answerer;
        answerer.willPress(u"Cancel"_s);
        answerer.willPress(u"Escape"_s);
        answerer.willPress(u"Escape"_s);
        answerer.willPress(u"OK"_s);
        QVERIFY(!app.app().dialog(u"Delete configuration?"_s, QString(), u"Are you sure?"_s, true, nullptr));
        QVERIFY(!app.app().dialog(u"Delete configuration?"_s, QString(), u"Are you sure?"_s, true, nullptr));
        QLineEdit field;
        QVERIFY(!app.app().dialog(u"Add Radio"_s, QString(), QString(), true, &field));
        QVERIFY(app.app().dialog(u"Delete configuration?"_s, QString(), u"Are you sure?"_s, true, nullptr));
        QCOMPARE(answerer.shown().size(), 4);
    }

    // A run ended with any code but OK's.
    QTimer ender;
    ender.setInterval(10);
    QObject::connect(&ender, &QTimer::timeout, [&ender] {
        if (auto *panel = qobject_cast<QDialog *>(QApplication::activeModalWidget()); panel && panel->isVisible()) {
            ender.stop();
            panel->done(2);
        }
    });
    ender.start();
    QVERIFY(!app.app().dialog(u"Delete configuration?"_s, QString(), u"Are you sure?"_s, true, nullptr));

    // Without a Cancel button, Escape leaves the panel up; only OK ends it.
    bool stayedUp = false;
    QTimer presser;
    presser.setInterval(10);
    QObject::connect(&presser, &QTimer::timeout, [&] {
        auto *panel = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!panel || !panel->isVisible())
            return;
        presser.stop();
        QTest::keyClick(panel, Qt::Key_Escape);
        QApplication::processEvents();
        stayedUp = panel->isVisible();
        for (QPushButton *button : panel->findChildren<QPushButton *>())
            if (button->text() == u"OK"_s)
                QTest::mouseClick(button, Qt::LeftButton);
    });
    presser.start();
    const ModalWatchdog watchdog;
    app.app().alert(u"Saved."_s);
    QVERIFY(stayedUp);
}

void AppShellTest::panelPlacesIconTextsFieldAndButtons()
{
    // The arithmetic, from the heights of the stacked views.
    const DialogGeometry three = dialogGeometry({30, 20, 26}, true, true);
    QCOMPARE(three.height, 156 + 42 + 32 + 38);
    QCOMPARE(three.icon, QRect(198, 24, 64, 64));
    QCOMPARE(three.views, (QList<QRect>{QRect(32, 104, 396, 30), QRect(32, 146, 396, 20), QRect(48, 178, 364, 26)}));
    QCOMPARE(three.okButton, QRect(138, three.height - 20 - 32, 88, 32));
    QCOMPARE(three.cancelButton, QRect(234, three.height - 20 - 32, 88, 32));
    // The last view ends 12 above the buttons.
    QCOMPARE(three.views.last().bottom() + 1 + 12, three.okButton.top());
    const DialogGeometry none = dialogGeometry({}, false, false);
    QCOMPARE(none.height, 156);
    QCOMPARE(none.okButton, QRect(186, 104, 88, 32));
    QVERIFY(none.cancelButton.isNull());
    QVERIFY(none.views.isEmpty());
    QCOMPARE(dialogLabelHeight(17.0), 27);
    QCOMPARE(dialogLabelHeight(17.2), 28);

    // The panel as shown.
    TestWorld world;
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    DialogAnswerer answerer;
    answerer.willPress(u"Cancel"_s);
    QLineEdit field;
    QVERIFY(!app.app().dialog(u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                              u"Are you sure?"_s, true, &field));

    QCOMPARE(answerer.shown().size(), 1);
    const ShownDialog &shown = answerer.shown().first();
    QCOMPARE(shown.texts, (QStringList{u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                                       u"Are you sure?"_s}));
    const int height = shown.size.height();
    QCOMPARE(shown.size.width(), 460);
    QCOMPARE(shown.icon, QRect(198, 24, 64, 64));
    int cursor = 104;
    int sum = 0;
    for (const QRect &frame : shown.textFrames) {
        QCOMPARE(frame, QRect(32, cursor, 396, frame.height()));
        cursor += frame.height() + 12;
        sum += frame.height() + 12;
    }
    QCOMPARE(shown.inputField, QRect(48, cursor, 364, 26));
    QCOMPARE(height, 156 + sum + 26 + 12);
    QCOMPARE(shown.okButton, QRect(138, height - 20 - 32, 88, 32));
    QCOMPARE(shown.cancelButton, QRect(234, height - 20 - 32, 88, 32));
    QCOMPARE(shown.inputField.bottom() + 1 + 12, shown.okButton.top());
    for (int i = 0; i < shown.textFrames.size(); ++i)
        QVERIFY(shown.textHeightsNeeded.at(i) <= shown.textFrames.at(i).height());
    // Centred on the main window's content.
    const QPoint middle = app.window()->geometry().center();
    QCOMPARE(shown.frame, QRect(middle.x() - 230, middle.y() - height / 2, 460, height));
    QVERIFY(qAbs(shown.frame.center().x() - middle.x()) <= 1);
    QVERIFY(qAbs(shown.frame.center().y() - middle.y()) <= 1);
}

void AppShellTest::longWordsBreakInsideTheLine()
{
    TestWorld world;
    RunningApp app(world);
    DialogAnswerer answerer;

    const QString host = u"radiointheremoteshackbehindtheclubvpngateway.northridgecontesstation.example.invalid"_s;
    const QString path = u"/home/operator/.config/Veldspar/"_s + QString(120, u'x') + u"/config.json"_s;
    const QString message = u"Cannot find "_s + host + u": no such host name is known."_s;
    app.app().dialog(message, path, host, false, nullptr);

    QCOMPARE(answerer.shown().size(), 1);
    const ShownDialog &shown = answerer.shown().first();
    // Shown whole and as given: nothing inserted into the words to break them.
    QCOMPARE(shown.texts, (QStringList{message, path, host}));
    QCOMPARE(shown.textsWhole, (QList<bool>{true, true, true}));
    // Each word is wider than a line, so each text takes more than one line, and the panel
    // grows by what is shown.
    const int titleLine = QFontMetrics(systemFont(15, QFont::DemiBold)).lineSpacing();
    QVERIFY(QFontMetrics(systemFont(15, QFont::DemiBold)).horizontalAdvance(host) > dialogLayoutWidth);
    QVERIFY(shown.textFrames.at(2).height() >= 2 * titleLine + 10);
    QVERIFY(shown.textFrames.at(1).height() >= 2 * QFontMetrics(systemFont(12)).lineSpacing() + 10);
    int sum = 0;
    for (int i = 0; i < shown.textFrames.size(); ++i) {
        QCOMPARE(shown.textFrames.at(i).height(), shown.textHeightsNeeded.at(i));
        sum += shown.textFrames.at(i).height() + 12;
    }
    QCOMPARE(shown.size, QSize(460, 156 + sum));
}

void AppShellTest::textsKeepTheirStylesAndColours()
{
    TestWorld world;
    RunningApp app(world);
    QList<QFont> fonts;
    QList<QColor> colours;
    QList<Qt::Alignment> alignments;
    const OnModalPanel look([&](QDialog *panel) {
        for (DialogText *text : panelTexts(panel)) {
            fonts << text->font();
            colours << text->palette().color(QPalette::Text);
            alignments << text->document()->firstBlock().layout()->textOption().alignment();
        }
        panel->done(0);
    });
    const ModalWatchdog watchdog;
    app.app().dialog(u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                     u"Are you sure?"_s, true, nullptr);

    QCOMPARE(fonts.size(), 3);
    QCOMPARE(fonts.at(0), systemFont(15, QFont::DemiBold));
    QCOMPARE(fonts.at(1), systemFont(12));
    QCOMPARE(fonts.at(2), systemFont(15, QFont::DemiBold));
    const QPalette palette = app.window()->palette();
    QCOMPARE(colours.at(0), palette.color(QPalette::Text));
    QCOMPARE(colours.at(1), palette.color(QPalette::PlaceholderText));
    QCOMPARE(colours.at(2), palette.color(QPalette::Text));
    QVERIFY(colours.at(0) != colours.at(1));
    for (Qt::Alignment alignment : alignments)
        QVERIFY(alignment & Qt::AlignHCenter);
}

// A colour-scheme switch while the app runs reaches every secondary text, in the window and in
// an open panel: they are drawn in the palette's secondary role, not in a colour copied once.
void AppShellTest::secondaryTextFollowsTheDesktopsColourScheme()
{
    TestWorld world;
    writeAlpha(world);
    RunningApp app(world);
    QVERIFY(QTest::qWaitForWindowExposed(app.window()));
    QWidget *content = app.window()->centralWidget();
    const QList<QWidget *> secondary = {
        labelWithText(content, u"Make remote FlexRadios discoverable on your local network."_s),
        labelWithText(content, u"MODEL"_s), labelWithText(content, u"FIRMWARE"_s),
        content->findChild<QLabel *>(u"serviceStartup"_s), app.status()};
    for (QWidget *text : secondary)
        QVERIFY(text);
    const auto drawnIn = [](QWidget *text) { return text->palette().color(text->foregroundRole()); };

    const QPalette light = QApplication::palette();
    QPalette dark = light;
    dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2b));
    dark.setColor(QPalette::WindowText, QColor(0xee, 0xee, 0xee));
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x1e));
    dark.setColor(QPalette::Text, QColor(0xee, 0xee, 0xee));
    dark.setColor(QPalette::PlaceholderText, QColor(0x9a, 0xa0, 0xa6));
    QVERIFY(light.color(QPalette::PlaceholderText) != dark.color(QPalette::PlaceholderText));
    const auto restore = qScopeGuard([&light] { QApplication::setPalette(light); });

    for (QWidget *text : secondary)
        QCOMPARE(drawnIn(text), light.color(QPalette::PlaceholderText));
    QApplication::setPalette(dark);
    QApplication::processEvents();
    for (QWidget *text : secondary)
        QVERIFY2(drawnIn(text) == dark.color(QPalette::PlaceholderText),
                 qPrintable(text->objectName() + u' ' + drawnIn(text).name()));
    // The primary texts follow too.
    QCOMPARE(drawnIn(labelWithText(content, u"Radios"_s)), dark.color(QPalette::WindowText));

    // A panel open while the scheme changes back.
    QList<QColor> before;
    QList<QColor> after;
    const OnModalPanel look([&](QDialog *panel) {
        for (DialogText *text : panelTexts(panel))
            before << text->palette().color(QPalette::Text);
        QApplication::setPalette(light);
        QApplication::processEvents();
        for (DialogText *text : panelTexts(panel))
            after << text->palette().color(QPalette::Text);
        panel->done(0);
    });
    const ModalWatchdog watchdog;
    app.app().dialog(u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                     u"Are you sure?"_s, true, nullptr);
    QCOMPARE(before.size(), 3);
    QCOMPARE(before.at(1), dark.color(QPalette::PlaceholderText));
    QCOMPARE(before.at(0), dark.color(QPalette::Text));
    QCOMPARE(after, (QList<QColor>{light.color(QPalette::Text), light.color(QPalette::PlaceholderText),
                                   light.color(QPalette::Text)}));
}

void AppShellTest::messageTextCanBeSelectedAndCopied()
{
    TestWorld world;
    RunningApp app(world);
    const QString message = u"Cannot find radio.example.invalid: no such host name is known."_s;
    QGuiApplication::clipboard()->clear();
    bool readOnly = false;
    bool selectable = false;
    QString accessibleText;
    const OnModalPanel copy([&](QDialog *panel) {
        const QList<DialogText *> texts = panelTexts(panel);
        if (texts.size() != 1)
            return panel->done(-1);
        DialogText *text = texts.first();
        // As a screen reader sees it: a text it can read and select in, that cannot be edited.
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(text);
        readOnly = iface->state().readOnly;
        selectable = iface->state().selectableText && iface->textInterface();
        if (iface->textInterface())
            accessibleText = iface->textInterface()->text(0, iface->textInterface()->characterCount());
        // As a keyboard user copies it: into the text, select all, copy.
        text->setFocus(Qt::TabFocusReason);
        QTest::keyClick(text, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(text, Qt::Key_C, Qt::ControlModifier);
        // Typing changes nothing.
        QTest::keyClicks(text, u"xyz"_s);
        if (text->toPlainText() != message)
            return panel->done(-1);
        panelButton(panel, u"OK"_s)->click();
    });
    const ModalWatchdog watchdog;
    QVERIFY(app.app().dialog(message, QString(), QString(), false, nullptr));
    QVERIFY(readOnly);
    QVERIFY(selectable);
    QCOMPARE(accessibleText, message);
    QCOMPARE(QGuiApplication::clipboard()->text(), message);
}

void AppShellTest::returnAndEscapeAnswerFromTheText()
{
    TestWorld world;
    RunningApp app(world);
    const ModalWatchdog watchdog;
    for (const auto &[key, expected] : {std::pair{Qt::Key_Return, true}, std::pair{Qt::Key_Escape, false}}) {
        bool focusWasOnOk = false;
        const OnModalPanel press([&, key = key](QDialog *panel) {
            focusWasOnOk = QApplication::focusWidget() == panelButton(panel, u"OK"_s);
            if (panelTexts(panel).isEmpty())
                return panel->done(-1);
            DialogText *text = panelTexts(panel).first();
            text->setFocus(Qt::MouseFocusReason);
            QTest::keyClick(text, key);
        });
        QCOMPARE(app.app().dialog(u"Delete configuration?"_s, QString(), u"Are you sure?"_s, true, nullptr), expected);
        QVERIFY(focusWasOnOk);
    }
}

void AppShellTest::returnOnAFocusedCancelCancels_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<int>("key");
    QTest::newRow("delete, Return") << u"Delete Config"_s << int(Qt::Key_Return);
    QTest::newRow("delete, Enter") << u"Delete Config"_s << int(Qt::Key_Enter);
    QTest::newRow("uninstall, Return") << u"Uninstall"_s << int(Qt::Key_Return);
}

// A keyboard user who tabs to Cancel and presses Return means Cancel: the question of a real
// action is answered no, and nothing is deleted or removed. Back on OK, Return is OK again.
void AppShellTest::returnOnAFocusedCancelCancels()
{
    QFETCH(QString, action);
    QFETCH(int, key);
    TestWorld world;
    writeAlpha(world);
    const QByteArray config = world.readConfig();
    RunningApp app(world);
    QVERIFY(windowReady(app));
    const QString statusBefore = app.statusText();
    QString focusBeforeReturn;
    bool okIsDefaultAgain = false;
    const ModalWatchdog watchdog;
    const OnModalPanel press([&](QDialog *panel) {
        // A window system may show the panel a moment before it has the keyboard.
        QVERIFY(QTest::qWaitForWindowActive(panel));
        QTRY_COMPARE(QApplication::focusWidget(), panelButton(panel, u"OK"_s));
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        focusBeforeReturn = nameOf(QApplication::focusWidget());
        // Moving on and back: the default returns to OK with the focus.
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        okIsDefaultAgain = panelButton(panel, u"OK"_s)->isDefault();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Backtab);
        QTest::keyClick(QApplication::focusWidget(), Qt::Key(key));
    });
    app.click(app.button(action));
    QCOMPARE(focusBeforeReturn, u"Cancel"_s);
    QVERIFY(okIsDefaultAgain);
    QVERIFY(!QApplication::activeModalWidget());
    QVERIFY(!app.app().isBusy());
    QCOMPARE(app.statusText(), statusBefore);
    QCOMPARE(app.rowCount(), 1);
    QCOMPARE(world.readConfig(), config);
}

void AppShellTest::panelIsAnnouncedByItsTexts()
{
    TestWorld world;
    RunningApp app(world);
    QAccessible::Role role = QAccessible::NoRole;
    QString name;
    QString description;
    QStringList textValues;
    const OnModalPanel read([&](QDialog *panel) {
        QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(panel);
        role = iface->role();
        name = iface->text(QAccessible::Name);
        description = iface->text(QAccessible::Description);
        for (int i = 0; i < iface->childCount(); ++i) {
            QAccessibleInterface *child = iface->child(i);
            if (child->textInterface() && child->state().readOnly)
                textValues << child->textInterface()->text(0, child->textInterface()->characterCount());
        }
        panel->done(0);
    });
    const ModalWatchdog watchdog;
    app.app().dialog(u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                     u"Are you sure?"_s, true, nullptr);

    QCOMPARE(role, QAccessible::Dialog);
    QCOMPARE(name, u"Delete configuration?"_s);
    QCOMPARE(description, u"This will remove all configured radios immediately.\nAre you sure?"_s);
    QCOMPARE(textValues, (QStringList{u"Delete configuration?"_s, u"This will remove all configured radios immediately."_s,
                                      u"Are you sure?"_s}));
}

// Qt writes the application's name into an empty title; the panel's title bar must stay empty.
// Under offscreen only the widget's own title can be seen; the X11 run (ctest's
// tst_app_on_x11) reads what the window system holds.
void AppShellTest::panelShowsNoTitleText()
{
    TestWorld world;
    RunningApp app(world);
    QString widgetTitle = u"unread"_s;
    QString systemTitle = u"unread"_s;
    const OnModalPanel read([&](QDialog *panel) {
        widgetTitle = panel->windowTitle();
        systemTitle = windowSystemTitle(panel);
        panel->done(0);
    });
    const ModalWatchdog watchdog;
    app.app().alert(u"Saved."_s);

    QCOMPARE(widgetTitle, QString());
    if (QGuiApplication::platformName() != u"xcb"_s)
        QSKIP("The window system's title can be read back on X11 only");
    QVERIFY(!systemTitle.isNull());
    QCOMPARE(systemTitle, u""_s);
}

void AppShellTest::addRadioFieldHasAnAccessibleName()
{
    TestWorld world;
    RunningApp app(world);
    QString fieldName;
    QAccessible::Role fieldRole = QAccessible::NoRole;
    const OnModalPanel read([&](QDialog *panel) {
        QLineEdit *field = panel->findChild<QLineEdit *>();
        if (field) {
            QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(field);
            fieldName = iface->text(QAccessible::Name);
            fieldRole = iface->role();
        }
        panel->done(0);
    });
    const ModalWatchdog watchdog;
    app.click(app.button(u"Add Radio\u2026"_s));

    QCOMPARE(fieldRole, QAccessible::EditableText);
    QCOMPARE(fieldName, u"Radio IPv4 address"_s);
}

QTEST_MAIN(AppShellTest)
#include "tst_app.moc"
