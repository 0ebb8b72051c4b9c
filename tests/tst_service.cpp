// The background service as the app shows and drives it: the status monitor against a
// systemctl stand-in, the service actions against a script stand-in, the shipped service
// script against the systemctl stand-in, and the uninstall with its privileged fallback.

#include "TestSupport.h"
#include "Privileges.h"
#include "fakes/NotifySocket.h"

#include "app/AppDelegate.h"
#include "app/Announcement.h"
#include "app/Colors.h"
#include "app/Fonts.h"
#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "platform/Bundle.h"
#include "platform/Process.h"
#include "platform/RadioTexts.h"
#include "platform/SystemTools.h"
#include "platform/Trash.h"
#include "service/LiveState.h"
#include "service/ServiceStatus.h"

#include <QCheckBox>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>
#include <QAccessible>
#include <QLabel>
#include <QListView>
#include <QMainWindow>
#include <QProcess>
#include <QRegularExpression>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QWindow>
#include <QUrl>
#include <QtTest>

#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Calls back at every expose event, application-wide, that leaves its window exposed.
class FirstExposeWatch : public QObject
{
public:
    explicit FirstExposeWatch(std::function<void(QWindow *)> seen) : m_seen(std::move(seen))
    {
        qApp->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Expose)
            if (auto *window = qobject_cast<QWindow *>(watched); window && window->isExposed())
                m_seen(window);
        return false;
    }

private:
    std::function<void(QWindow *)> m_seen;
};
const QByteArray running = "LoadState=loaded\nActiveState=active\nSubState=running\n";
const QByteArray activating = "LoadState=loaded\nActiveState=activating\nSubState=auto-restart\n";
const QByteArray inactive = "LoadState=loaded\nActiveState=inactive\nSubState=dead\n";
const QString retry = u"Service removed. App removal was cancelled or denied; click Uninstall to retry."_s;
const QString failedAction = u"Could not update service. See service-action.log in Show Files."_s;

QString unit(const QString &label)
{
    return label + u".service"_s;
}

// The colour the label's text is drawn in.
QColor colourOf(QLabel *label)
{
    return label->palette().color(label->foregroundRole());
}

QColor secondaryColour(QLabel *label)
{
    return label->palette().color(QPalette::PlaceholderText);
}

// Unit properties as systemd gives them, from KEY=VALUE lines.
QVariantMap properties(const QByteArray &lines)
{
    QVariantMap result;
    for (const QByteArray &line : lines.split('\n')) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0)
            result.insert(QString::fromUtf8(line.left(equals)), QString::fromUtf8(line.mid(equals + 1)));
    }
    return result;
}

// The app's questions to systemd about its units, each the units it names in order.
QList<QStringList> unitQueries(const TestWorld &world)
{
    QList<QStringList> queries;
    for (const QStringList &call : world.systemdCalls())
        if (call.value(0) == u"ListUnitsByNames"_s)
            queries << call.mid(1);
    return queries;
}

// The units the app asked systemd about, in order.
QStringList showCalls(const TestWorld &world)
{
    QStringList units;
    for (const QStringList &query : unitQueries(world))
        units << query;
    return units;
}

QString stateLine(const RunningApp &app)
{
    return app.window()->findChild<QLabel *>(u"serviceState"_s)->text();
}

// The state-changing systemctl calls, as "verb unit" lines.
QStringList changingCalls(const TestWorld &world)
{
    QStringList lines;
    for (const QStringList &call : world.systemctlCalls())
        if (call.value(1) != u"show"_s)
            lines << call.mid(1).join(u' ');
    return lines;
}

// Every file and link under folder, relative to it, leaving out the Trash.
QStringList filesOutsideTheTrash(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = QDir(folder).relativeFilePath(it.next());
        if (!relative.startsWith(u".local/share/Trash/"_s))
            files << relative;
    }
    files.sort();
    return files;
}

// Runs the release installer with the world's HOME; its output when it fails.
QString runInstaller(const QStringList &arguments)
{
    const ProcessResult run = runProcess(u"/bin/bash"_s, QStringList{u"" VELDSPAR_INSTALLER ""_s} + arguments);
    return run.succeeded() ? QString() : QString::fromUtf8(run.output);
}
} // namespace


// ---- The service's live state as the app shows it ----

// A state file as the service writes it: each radio as (serial, address, state, extra fields).
QByteArray stateFile(qint64 pid, const QList<QJsonObject> &radios)
{
    QJsonArray list;
    for (const QJsonObject &radio : radios)
        list.append(radio);
    return QJsonDocument(QJsonObject{{u"pid"_s, pid}, {u"written"_s, u"2026-11-23T14:05:00.000Z"_s}, {u"radios"_s, list}})
        .toJson();
}

QJsonObject liveEntry(const QString &serial, const QString &address, const QString &state, const QDateTime &since,
                      const QJsonObject &extra = {})
{
    QJsonObject radio{{u"serialNumber"_s, serial}, {u"ipAddress"_s, address}, {u"state"_s, state},
                      {u"since"_s, since.toUTC().toString(Qt::ISODateWithMs)}, {u"lastBeacon"_s, QJsonValue()}};
    for (auto it = extra.begin(); it != extra.end(); ++it)
        radio.insert(it.key(), it.value());
    return radio;
}

// Replaced as the service replaces it: whole, by a rename.
void publishState(const TestWorld &world, const QByteArray &bytes)
{
    const QString path = world.runtimeDir() + u"/Veldspar/state.json"_s;
    QDir().mkpath(QFileInfo(path).path());
    writeTestFile(path + u".new"_s, bytes);
    QFile::remove(path);
    QFile::rename(path + u".new"_s, path);
}

// What a screen reader hears for each row.
QStringList spokenRows(const RunningApp &app)
{
    QStringList rows;
    for (int row = 0; row < app.rowCount(); ++row)
        rows << app.table()->model()->index(row, 0).data(Qt::AccessibleTextRole).toString();
    return rows;
}

// The colour at the middle of a row's dot, as painted.
QColor dotColour(const RunningApp &app, int row)
{
    const QRect rect = app.table()->visualRect(app.table()->model()->index(row, 0));
    const int titleHeight = QFontMetrics(systemFont(14, QFont::DemiBold)).height();
    const QImage image = app.table()->viewport()->grab().toImage();
    return image.pixelColor(rect.left() + 8 + 4, rect.top() + 10 + titleHeight / 2);
}

bool sameColour(const QColor &a, const QColor &b)
{
    return qAbs(a.red() - b.red()) <= 8 && qAbs(a.green() - b.green()) <= 8 && qAbs(a.blue() - b.blue()) <= 8;
}

class ServiceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The machine's own user session, before any test world replaces it.
        m_realRuntime = qgetenv("XDG_RUNTIME_DIR");
        m_realBus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        // Before any background thread exists, so that they all inherit it: read-only folders
        // stop this process as they would stop a user, root or not.
        m_ordinaryUser = std::make_unique<WithoutFilePermissionOverride>();
    }

    // The answer of systemd, label by label.

    void unitPropertiesMapToStates_data()
    {
        QTest::addColumn<QVariantMap>("unit");
        QTest::addColumn<int>("state");
        QTest::newRow("running") << properties(running) << int(UnitState::Running);
        QTest::newRow("active but exited") << properties("LoadState=loaded\nActiveState=active\nSubState=exited\n")
                                           << int(UnitState::Loaded);
        QTest::newRow("activating") << properties(activating) << int(UnitState::Loaded);
        QTest::newRow("deactivating")
            << properties("LoadState=loaded\nActiveState=deactivating\nSubState=stop-sigterm\n") << int(UnitState::Loaded);
        QTest::newRow("reloading") << properties("LoadState=loaded\nActiveState=reloading\nSubState=running\n")
                                   << int(UnitState::Loaded);
        QTest::newRow("refreshing") << properties("LoadState=loaded\nActiveState=refreshing\nSubState=running\n")
                                    << int(UnitState::Loaded);
        QTest::newRow("inactive") << properties(inactive) << int(UnitState::NotLoaded);
        QTest::newRow("failed") << properties("LoadState=loaded\nActiveState=failed\nSubState=failed\n")
                                << int(UnitState::NotLoaded);
        QTest::newRow("maintenance") << properties("LoadState=loaded\nActiveState=maintenance\nSubState=dead\n")
                                     << int(UnitState::NotLoaded);
        QTest::newRow("not found") << properties("LoadState=not-found\nActiveState=inactive\nSubState=dead\n")
                                   << int(UnitState::NotLoaded);
        QTest::newRow("no LoadState") << properties("ActiveState=active\nSubState=running\n") << int(UnitState::Unavailable);
        QTest::newRow("nothing") << QVariantMap() << int(UnitState::Unavailable);
        QTest::newRow("unknown active state") << properties("LoadState=loaded\nActiveState=bogus\n")
                                              << int(UnitState::Unavailable);
        QTest::newRow("LoadState not text")
            << QVariantMap{{u"LoadState"_s, 1}, {u"ActiveState"_s, u"active"_s}, {u"SubState"_s, u"running"_s}}
            << int(UnitState::Unavailable);
        QTest::newRow("ActiveState not text")
            << QVariantMap{{u"LoadState"_s, u"loaded"_s}, {u"ActiveState"_s, QStringList{u"active"_s}}}
            << int(UnitState::Unavailable);
        QTest::newRow("SubState not text")
            << QVariantMap{{u"LoadState"_s, u"loaded"_s}, {u"ActiveState"_s, u"active"_s}, {u"SubState"_s, 7}}
            << int(UnitState::Loaded);
    }

    void unitPropertiesMapToStates()
    {
        QFETCH(QVariantMap, unit);
        QFETCH(int, state);
        QCOMPARE(int(unitStateFromProperties(unit)), state);
    }

    // Each answer of systemd's user manager, as the window shows it.
    void userManagerAnswersShowInTheWindow_data()
    {
        QTest::addColumn<QByteArray>("unit");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("flag");
        QTest::addColumn<QString>("shown");
        const QString runningText = u"\u25CF Running"_s;
        const QString starting = u"\u25CF Starting / restarting"_s;
        const QString disabled = u"\u25CF Disabled"_s;
        const QString unavailable = u"\u25CF Status unavailable"_s;
        QTest::newRow("running") << running << 0 << QString() << runningText;
        QTest::newRow("active but exited") << QByteArray("LoadState=loaded\nActiveState=active\nSubState=exited\n") << 0
                                           << QString() << starting;
        QTest::newRow("activating") << activating << 0 << QString() << starting;
        QTest::newRow("deactivating") << QByteArray("LoadState=loaded\nActiveState=deactivating\nSubState=stop-sigterm\n")
                                      << 0 << QString() << starting;
        QTest::newRow("reloading") << QByteArray("LoadState=loaded\nActiveState=reloading\nSubState=running\n") << 0
                                   << QString() << starting;
        QTest::newRow("refreshing") << QByteArray("LoadState=loaded\nActiveState=refreshing\nSubState=running\n") << 0
                                    << QString() << starting;
        QTest::newRow("inactive") << inactive << 0 << QString() << disabled;
        QTest::newRow("failed") << QByteArray("LoadState=loaded\nActiveState=failed\nSubState=failed\n") << 0
                                << QString() << disabled;
        QTest::newRow("maintenance") << QByteArray("LoadState=loaded\nActiveState=maintenance\nSubState=dead\n") << 0
                                     << QString() << disabled;
        QTest::newRow("not found") << QByteArray() << 0 << QString() << disabled;
        QTest::newRow("no LoadState") << QByteArray("ActiveState=active\nSubState=running\n") << 0 << QString()
                                      << unavailable;
        QTest::newRow("unknown active state") << QByteArray("LoadState=loaded\nActiveState=bogus\n") << 0 << QString()
                                              << unavailable;
        QTest::newRow("failed call") << running << 1 << QString() << unavailable;
        QTest::newRow("manager refuses") << running << 0 << u"unavailable"_s << unavailable;
        QTest::newRow("path of the wrong type") << running << 0 << u"garbage-path"_s << unavailable;
        QTest::newRow("states of the wrong type") << running << 0 << u"garbage-properties"_s << unavailable;
    }

    void userManagerAnswersShowInTheWindow()
    {
        QFETCH(QByteArray, unit);
        QFETCH(int, status);
        QFETCH(QString, flag);
        QFETCH(QString, shown);
        TestWorld world;
        if (!unit.isEmpty())
            world.answerUnit(u"org.kestrum.Veldspar.service"_s, unit, status);
        if (!flag.isEmpty())
            world.garbleSystemdAnswers(flag);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(stateLine(app), shown);
        // The answer came over the bus: the manager was asked about the unit.
        QVERIFY(showCalls(world).contains(u"org.kestrum.Veldspar.service"_s));
    }

    // The status monitor in the window.

    void firstCheckAsksAboutTheThreeLabelsInOrder()
    {
        TestWorld world;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(showCalls(world).mid(0, 3), QStringList({unit(u"org.kestrum.Veldspar"_s), unit(u"org.kestrum.veldspar"_s),
                                                          unit(u"org.kestrum.palisade"_s)}));
        // One connection subscribes to unit changes, then asks about the three units in one call.
        QCOMPARE(world.systemdCalls().mid(0, 2),
                 QList<QStringList>({{u"Subscribe"_s},
                                     {u"ListUnitsByNames"_s, unit(u"org.kestrum.Veldspar"_s),
                                      unit(u"org.kestrum.veldspar"_s), unit(u"org.kestrum.palisade"_s)}}));
        // systemd's own command is left to the service script.
        QVERIFY(world.systemctlCalls().isEmpty());
    }

    void runningUnderTheLowerCaseLabelShowsRunning()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        world.answerUnit(unit(u"org.kestrum.veldspar"_s), running);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QLabel *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
        QCOMPARE(state->text(), u"\u25CF Running"_s);
        QCOMPARE(colourOf(state), QColor(0x27, 0xAE, 0x60));
        QCOMPARE(app.serviceButton()->text(), u"Enabled"_s);
        QVERIFY(app.serviceButton()->active());
        QVERIFY(app.serviceButton()->isEnabled());
    }

    void loadedButNotRunningShowsStarting()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), activating);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QLabel *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
        QCOMPARE(state->text(), u"\u25CF Starting / restarting"_s);
        QCOMPARE(colourOf(state), QColor(0xF6, 0x74, 0x00));
        QCOMPARE(app.serviceButton()->text(), u"Enable"_s);
        QVERIFY(!app.serviceButton()->active());
    }

    void unitFileOfTheLegacyLabelShowsStopped()
    {
        TestWorld world;
        world.writeUnitFile(u"org.kestrum.palisade"_s);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QLabel *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
        QLabel *startup = app.window()->findChild<QLabel *>(u"serviceStartup"_s);
        QCOMPARE(state->text(), u"\u25CF Stopped"_s);
        QCOMPARE(colourOf(state), secondaryColour(state));
        QCOMPARE(startup->text(), u"Configured to start at login"_s);
    }

    void nothingAnywhereShowsDisabled()
    {
        TestWorld world;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QLabel *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
        QLabel *startup = app.window()->findChild<QLabel *>(u"serviceStartup"_s);
        QCOMPARE(state->text(), u"\u25CF Disabled"_s);
        QCOMPARE(colourOf(state), secondaryColour(state));
        QCOMPARE(startup->text(), u"Automatic startup is not configured"_s);
        QCOMPARE(colourOf(startup), secondaryColour(startup));
        // No radios and nothing running: the button cannot be used.
        QCOMPARE(app.serviceButton()->text(), u"Enable"_s);
        QVERIFY(!app.serviceButton()->isEnabled());
    }

    void runningWithoutUnitFileSaysStartupIsNotConfigured()
    {
        TestWorld world;
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceState"_s)->text(), u"\u25CF Running"_s);
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceStartup"_s)->text(),
                 u"Automatic startup is not configured"_s);
        // Running counts like radios: the button can turn the service off.
        QVERIFY(app.serviceButton()->isEnabled());
    }

    void systemdWithoutUserSessionShowsStatusUnavailable()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        world.makeSystemdUnavailable();
        world.writeUnitFile(u"org.kestrum.Veldspar"_s);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QLabel *state = app.window()->findChild<QLabel *>(u"serviceState"_s);
        QCOMPARE(state->text(), u"\u25CF Status unavailable"_s);
        QCOMPARE(colourOf(state), QColor(0xF6, 0x74, 0x00));
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceStartup"_s)->text(), u"Configured to start at login"_s);
        QCOMPARE(app.serviceButton()->text(), u"Enable"_s);
        QVERIFY(!app.serviceButton()->active());
    }

    void noUserBusShowsStatusUnavailable()
    {
        TestWorld world;
        world.writeUnitFile(u"org.kestrum.Veldspar"_s);
        world.stopUserBus();
        DialogAnswerer answers;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(stateLine(app), u"\u25CF Status unavailable"_s);
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceStartup"_s)->text(), u"Configured to start at login"_s);
        QCOMPARE(app.serviceButton()->text(), u"Enable"_s);
        // The state line is the whole report: no message box.
        QTest::qWait(200);
        QVERIFY(answers.shown().isEmpty());
    }

    void aLaterLoadedLabelWinsOverAnUnavailableOne()
    {
        TestWorld world;
        // The first label's answer is not understood; the third label running still wins.
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), "LoadState=loaded\nActiveState=bogus\n");
        world.answerUnit(unit(u"org.kestrum.palisade"_s), running);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(app.window()->findChild<QLabel *>(u"serviceState"_s)->text(), u"\u25CF Running"_s);
    }

    void busyKeepsTheButtonDisabledEvenWhileRunning()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, QString(), u"One"_s, QString())}));
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
        world.answerDiscover(u"10.0.0.1"_s, "{\"serialNumber\":\"A-1\",\"version\":\"3.3\"}\n", 0, true);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QVERIFY(app.serviceButton()->isEnabled());
        DialogAnswerer answers;
        app.click(app.includeBox()); // a save that waits for its probe
        QVERIFY(app.app().isBusy());
        // The next checks still update the row, but leave the button disabled.
        QTRY_VERIFY_WITH_TIMEOUT(!app.serviceButton()->isEnabled(), 8000);
        QCOMPARE(app.serviceButton()->text(), u"Enabled"_s);
        world.release();
        QVERIFY(app.waitUntilIdle());
        QTRY_VERIFY_WITH_TIMEOUT(app.serviceButton()->isEnabled(), 8000);
    }

    void aTickDuringACheckStartsNothing()
    {
        TestWorld world;
        world.holdSystemctl();
        RunningApp app(world);
        // The first check hangs in its call to systemd; more than one tick goes by.
        QTest::qWait(3500);
        QCOMPARE(unitQueries(world).size(), 1);
        world.release();
        QVERIFY(app.waitForServiceStatus());
        // Once released, checks go on at the timer's pace, never piled up.
        const qsizetype after = unitQueries(world).size();
        QVERIFY2(after <= 2, qPrintable(QString::number(after)));
    }

    void noTickOutlivesTheController()
    {
        TestWorld world;
        {
            RunningApp app(world);
            QVERIFY(app.waitForServiceStatus());
        }
        const qsizetype calls = world.systemdCalls().size();
        QTest::qWait(3500); // longer than a tick
        QCOMPARE(world.systemdCalls().size(), calls);
    }

    void aManagerThatNeverAnswersShowsUnavailableWithoutPilingUp()
    {
        TestWorld world;
        world.holdSystemctl();
        RunningApp app(world);
        // The window goes on answering while the first call waits.
        bool answered = false;
        QTimer::singleShot(0, [&] { answered = true; });
        QTRY_VERIFY_WITH_TIMEOUT(answered, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(stateLine(app), u"\u25CF Status unavailable"_s, 15000);
        // The tick that came meanwhile started no second check.
        QCOMPARE(unitQueries(world), QList<QStringList>({{unit(u"org.kestrum.Veldspar"_s), unit(u"org.kestrum.veldspar"_s),
                                                          unit(u"org.kestrum.palisade"_s)}}));
    }

    // Past the first check the question goes out from the main thread without waiting there.
    void aManagerThatStopsAnsweringLaterLeavesTheWindowFree()
    {
        TestWorld world;
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
        {
            RunningApp app(world);
            QVERIFY(app.waitForServiceStatus());
            QCOMPARE(stateLine(app), u"\u25CF Running"_s);
            world.holdSystemctl();
            const qsizetype asked = unitQueries(world).size();
            QTRY_COMPARE_WITH_TIMEOUT(unitQueries(world).size(), asked + 1, 5000);
            // The window goes on answering while the question waits.
            bool answered = false;
            QTimer::singleShot(0, [&] { answered = true; });
            QTRY_VERIFY_WITH_TIMEOUT(answered, 500);
            QCOMPARE(stateLine(app), u"\u25CF Running"_s);
            QTRY_COMPARE_WITH_TIMEOUT(stateLine(app), u"\u25CF Status unavailable"_s, 8000);
            // Ticks that came while it waited started nothing of their own.
            QCOMPARE(unitQueries(world).size(), asked + 1);
            // Another question is left waiting as the window goes.
            QTRY_COMPARE_WITH_TIMEOUT(unitQueries(world).size(), asked + 2, 5000);
        }
        world.release();
        QTest::qWait(200); // its answer arrives with no window left to take it
    }

    void aUnitChangeShowsWithoutWaitingForATick_data()
    {
        QTest::addColumn<bool>("onItsOwnSocket");
        QTest::newRow("manager on the bus") << false;
        QTest::newRow("manager on its own socket") << true;
    }

    void aUnitChangeShowsWithoutWaitingForATick()
    {
        QFETCH(bool, onItsOwnSocket);
        TestWorld world;
        if (onItsOwnSocket)
            world.moveUserManagerToItsSocket(TestWorld::Bus::Kept);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(stateLine(app), u"\u25CF Disabled"_s);
        // With the timer stopped only systemd's word can bring the change.
        QTimer *tick = app.app().findChild<QTimer *>(u"serviceTimer"_s);
        QVERIFY(tick);
        tick->stop();
        const QString staged = world.root() + u"/staged-unit"_s;
        writeTestFile(staged, running);
        QVERIFY(QFile::rename(staged, world.binFolder() + u"/systemctl.d/units/"_s + unit(u"org.kestrum.Veldspar"_s)));
        QTRY_COMPARE_WITH_TIMEOUT(stateLine(app), u"\u25CF Running"_s, 10000);
        QVERIFY(!tick->isActive());
    }

    // A session whose bus has no manager on it (started with dbus-launch, or with
    // DBUS_SESSION_BUS_ADDRESS naming another bus), or that has no bus at all: the manager is
    // asked on its own socket, where systemctl finds it, and the button can turn the service
    // off again once it runs.
    void aManagerOnlyOnItsOwnSocketIsAskedThere_data()
    {
        QTest::addColumn<bool>("busKept");
        QTest::newRow("bus without the manager") << true;
        QTest::newRow("no bus") << false;
    }

    void aManagerOnlyOnItsOwnSocketIsAskedThere()
    {
        QFETCH(bool, busKept);
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        world.moveUserManagerToItsSocket(busKept ? TestWorld::Bus::Kept : TestWorld::Bus::Stopped);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(stateLine(app), u"\u25CF Disabled"_s);
        QCOMPARE(unitQueries(world).value(0), QStringList({unit(u"org.kestrum.Veldspar"_s), unit(u"org.kestrum.veldspar"_s),
                                                           unit(u"org.kestrum.palisade"_s)}));

        world.setServiceAction(u"enable"_s, "enabled\n", 0);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), u"Service enabled"_s);
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
        QTRY_COMPARE_WITH_TIMEOUT(stateLine(app), u"\u25CF Running"_s, 8000);
        QCOMPARE(app.serviceButton()->text(), u"Enabled"_s);
        QVERIFY(app.serviceButton()->active());

        world.setServiceAction(u"disable"_s, "disabled\n", 0);
        QTRY_VERIFY_WITH_TIMEOUT(app.serviceButton()->isEnabled(), 8000);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"enable"_s, u"disable"_s}));
        QCOMPARE(app.statusText(), u"Service disabled"_s);
    }

    // Where this machine has a real systemd user manager, the window says what systemctl says,
    // whether the manager is reached on the session bus or on its own socket alone.
    void aRealUserManagerIsReadAsSystemctlReadsIt_data()
    {
        QTest::addColumn<bool>("busHidden");
        QTest::newRow("session bus") << false;
        QTest::newRow("own socket only") << true;
    }

    void aRealUserManagerIsReadAsSystemctlReadsIt()
    {
        QFETCH(bool, busHidden);
        if (m_realRuntime.isEmpty() || !QFile::exists(QFile::decodeName(m_realRuntime) + u"/systemd/private"_s))
            QSKIP("No systemd user manager on this machine ($XDG_RUNTIME_DIR/systemd/private is not there)");
        TestWorld world;
        world.stopUserBus();
        qputenv("XDG_RUNTIME_DIR", m_realRuntime);
        if (busHidden || m_realBus.isEmpty())
            qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + QFile::encodeName(world.root()) + "/no-bus-here");
        else
            qputenv("DBUS_SESSION_BUS_ADDRESS", m_realBus);

        QList<UnitState> states;
        for (const QString &label : serviceLabels()) {
            QProcess systemctl;
            systemctl.start(u"systemctl"_s, {u"--user"_s, u"show"_s, u"--property=LoadState,ActiveState,SubState"_s, unit(label)});
            QVERIFY(systemctl.waitForFinished(10000));
            QCOMPARE(systemctl.exitCode(), 0);
            states << unitStateFromProperties(properties(systemctl.readAllStandardOutput()));
        }
        const QString expected = foldServiceStatus(states, false).stateText;
        QVERIFY(expected != u"\u25CF Status unavailable"_s);

        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        QCOMPARE(stateLine(app), expected);
    }

    // Service actions.

    void enablingRunsTheScriptAndReportsIt()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"enable"_s, "enabled\n", 0);
        app.click(app.serviceButton());
        QCOMPARE(app.statusText(), u"Updating background service\u2026"_s);
        QVERIFY(!app.serviceButton()->isEnabled());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"enable"_s}));
        QCOMPARE(app.statusText(), u"Service enabled"_s);
        QVERIFY(app.status()->toolTip().isEmpty());
        QVERIFY(!QFile::exists(world.home() + u"/.local/share/Veldspar/service-action.log"_s));
    }

    void activeServiceButtonDisables()
    {
        TestWorld world;
        world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"disable"_s}));
        QCOMPARE(app.statusText(), u"Service disabled"_s);
    }

    void serviceButtonDoesNothingWithoutRadiosWhileOff()
    {
        TestWorld world;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        const QString before = app.statusText();
        app.app().enableService(); // as a click would, were the button not disabled
        QVERIFY(app.waitUntilIdle());
        QVERIFY(world.serviceActions().isEmpty());
        QCOMPARE(app.statusText(), before);
    }

    void serviceButtonWhileAnActionRunsDoesNothing()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"enable"_s, {}, 0, true);
        app.click(app.serviceButton());
        QTRY_COMPARE(world.serviceActions(), QStringList({u"enable"_s}));
        app.app().enableService();
        app.app().stopService();
        DialogAnswerer answers;
        app.click(app.button(u"Uninstall"_s));
        QTest::qWait(200);
        QVERIFY(answers.shown().isEmpty());
        QCOMPARE(app.statusText(), u"Updating background service\u2026"_s);
        world.release();
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"enable"_s}));
    }

    void silentFailureLeavesThePrefixInTipAndLog()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"enable"_s, {}, 1);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), failedAction);
        QCOMPARE(app.status()->toolTip(), u"Service update failed: "_s);
        QCOMPARE(world.serviceLog(), u"Service update failed: "_s);
        // Written in one piece: no temporary file is left beside it.
        QCOMPARE(QDir(world.home() + u"/.local/share/Veldspar"_s).entryList(QDir::Files | QDir::Hidden),
                 QStringList({u"config.json"_s, u"service-action.log"_s}));
    }

    void failureOutputThatIsNotUtf8IsShownAndLogged()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"enable"_s, "systemctl said \xff\xfe no\n", 3);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        const QString expected = u"Service update failed: systemctl said \uFFFD\uFFFD no\n"_s;
        QCOMPARE(app.status()->toolTip(), expected);
        QCOMPARE(world.serviceLog(), expected);
        QCOMPARE(readTestFile(world.home() + u"/.local/share/Veldspar/service-action.log"_s), expected.toUtf8());
    }

    void aSuccessAfterAFailureKeepsTheLogAndClearsTheTip()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s)}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"enable"_s, "first try failed\n", 1);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        world.setServiceAction(u"enable"_s, {}, 0);
        // As after any action, the button comes back once the service's state is known again.
        QTRY_VERIFY_WITH_TIMEOUT(app.serviceButton()->isEnabled(), 10000);
        app.click(app.serviceButton());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"enable"_s, u"enable"_s}));
        QCOMPARE(app.statusText(), u"Service enabled"_s);
        QVERIFY(app.status()->toolTip().isEmpty());
        QCOMPARE(world.serviceLog(), u"Service update failed: first try failed\n"_s);
    }

    void successfulStopReadsServiceRemoved()
    {
        TestWorld world;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        app.app().stopService();
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"stop"_s}));
        QCOMPARE(app.statusText(), u"Service removed"_s);
    }

    void uninstallAsksFirst()
    {
        TestWorld world;
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        answers.willPress(u"Cancel"_s);
        app.click(app.button(u"Uninstall"_s));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.shown().size(), 1);
        QCOMPARE(answers.shown().first().texts, QStringList({u"Remove Veldspar"_s,
                                                             u"Your system may ask for an administrator password"_s,
                                                             u"Are you sure?"_s}));
        QVERIFY(answers.shown().first().hasCancel);
        QVERIFY(world.serviceActions().isEmpty());
        QVERIFY(QFileInfo::exists(world.bundle()));
    }

    void failedRemoveIsReportedAndDoesNotUninstall()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        world.setServiceAction(u"remove"_s, "Veldspar service: systemctl --user stop failed\n", 1);
        DialogAnswerer answers;
        app.click(app.button(u"Uninstall"_s));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), failedAction);
        QCOMPARE(app.status()->toolTip(), u"Service update failed: Veldspar service: systemctl --user stop failed\n"_s);
        QVERIFY(QFileInfo::exists(world.bundle()));
        QVERIFY(world.configExists());
    }

    // The offer to refresh an outdated installed service.

    void outdatedServiceIsOfferedAnUpdate_data()
    {
        QTest::addColumn<QByteArray>("installed"); // empty: not installed
        QTest::addColumn<bool>("unitFile");
        QTest::addColumn<bool>("asked");
        QTest::newRow("differs, set up") << QByteArray("old service") << true << true;
        QTest::newRow("same bytes") << QByteArray() << true << false; // filled with the bundle's copy below
        QTest::newRow("not installed") << QByteArray("-") << true << false;
        QTest::newRow("differs, no unit file") << QByteArray("old service") << false << false;
    }

    void outdatedServiceIsOfferedAnUpdate()
    {
        QFETCH(QByteArray, installed);
        QFETCH(bool, unitFile);
        QFETCH(bool, asked);
        TestWorld world;
        const QString installedPath = world.home() + u"/.local/share/Veldspar/Veldspar"_s;
        if (installed.isEmpty())
            writeTestFile(installedPath, readTestFile(world.resources() + u"/Veldspar"_s));
        else if (installed != "-")
            writeTestFile(installedPath, installed);
        if (unitFile)
            world.writeUnitFile(u"org.kestrum.Veldspar"_s);

        QString question;
        QString detail;
        QStringList buttons;
        // Whether the main window had its first frame when the question came: the first expose
        // event of a window that is not the question's own.
        bool windowShown = false;
        bool windowExposed = false;
        FirstExposeWatch exposes([&](QWindow *exposed) {
            for (QWidget *top : QApplication::topLevelWidgets())
                if (qobject_cast<QMainWindow *>(top) && top->windowHandle() == exposed)
                    windowExposed = true;
        });
        RunningApp *started = nullptr;
        QTimer answerer;
        answerer.setInterval(10);
        connect(&answerer, &QTimer::timeout, [&] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box || !question.isEmpty())
                return;
            question = box->text();
            detail = box->informativeText();
            windowShown = started && windowExposed;
            for (QAbstractButton *button : box->buttons())
                buttons << button->text();
            QVERIFY(box->defaultButton());
            QCOMPARE(box->defaultButton()->text(), u"Update Service"_s);
            box->defaultButton()->click();
        });
        answerer.start();
        RunningApp app(world);
        started = &app;
        // The question waits for the window to be on screen.
        QVERIFY(question.isEmpty());
        QTest::qWait(300);
        QVERIFY(app.waitUntilIdle());
        if (!asked) {
            QVERIFY(question.isEmpty());
            QVERIFY(world.serviceActions().isEmpty());
            return;
        }
        QCOMPARE(question, u"Update the background service?"_s);
        QVERIFY(windowShown);
        QCOMPARE(detail, u"The app contains a newer service. Updating restarts discovery briefly and keeps your radio "
                         "configuration."_s);
        QCOMPARE(buttons, QStringList({u"Update Service"_s, u"Later"_s}));
        QCOMPARE(world.serviceActions(), QStringList({u"enable"_s}));
    }

    void laterLeavesTheServiceAlone()
    {
        TestWorld world;
        writeTestFile(world.home() + u"/.local/share/Veldspar/Veldspar"_s, "old service");
        world.writeUnitFile(u"org.kestrum.Veldspar"_s);
        bool asked = false;
        QTimer answerer;
        answerer.setInterval(10);
        connect(&answerer, &QTimer::timeout, [&] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box || asked)
                return;
            asked = true;
            for (QAbstractButton *button : box->buttons())
                if (button->text() == u"Later"_s)
                    button->click();
        });
        answerer.start();
        RunningApp app(world);
        QTRY_VERIFY(asked);
        QVERIFY(app.waitUntilIdle());
        QVERIFY(world.serviceActions().isEmpty());
    }

    // The shipped service script, run against the systemctl stand-in.

    void scriptEnableInstallsWritesTheUnitAndStarts()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        const TestWorld::ScriptRun run = world.runServiceScript(u"enable"_s);
        QCOMPARE(run.status, 0);
        QCOMPARE(run.output, QString());
        const QString support = world.home() + u"/.local/share/Veldspar"_s;
        QCOMPARE(readTestFile(support + u"/Veldspar"_s), readTestFile(world.resources() + u"/Veldspar"_s));
        QVERIFY(QFileInfo(support + u"/Veldspar"_s).isExecutable());
        QCOMPARE(readTestFile(world.unitFilePath(u"org.kestrum.Veldspar"_s)),
                 u"[Unit]\n"
                 "Description=Veldspar: makes remote FlexRadios discoverable on the local network\n"
                 "StartLimitIntervalSec=60\n"
                 "StartLimitBurst=5\n"
                 "\n"
                 "[Service]\n"
                 "Type=notify\n"
                 "NotifyAccess=main\n"
                 "ExecStart=\"%1/Veldspar\" --config \"%1/config.json\"\n"
                 "TimeoutStartSec=30\n"
                 "Restart=on-failure\n"
                 "RestartSec=3\n"
                 "\n"
                 "[Install]\n"
                 "WantedBy=default.target\n"_s.arg(support)
                     .toUtf8());
        QCOMPARE(changingCalls(world), QStringList({u"daemon-reload"_s, u"enable org.kestrum.Veldspar.service"_s,
                                                    u"reset-failed org.kestrum.Veldspar.service"_s,
                                                    u"restart org.kestrum.Veldspar.service"_s}));
        QCOMPARE(world.readConfig(), QByteArray("{\"radios\": []}"));
        // Nothing but the installed service and the unit was written.
        QCOMPARE(QDir(support).entryList(QDir::Files | QDir::Hidden, QDir::Name), QStringList({u"Veldspar"_s, u"config.json"_s}));
    }

    void scriptEnableRefreshesAnOutdatedService()
    {
        TestWorld world;
        world.useRealServiceScript();
        writeTestFile(world.home() + u"/.local/share/Veldspar/Veldspar"_s, "old service");
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        QCOMPARE(readTestFile(world.home() + u"/.local/share/Veldspar/Veldspar"_s), readTestFile(world.resources() + u"/Veldspar"_s));
    }

    void scriptEnableTakesDownTheEarlierLabels()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeUnitFile(u"org.kestrum.palisade"_s);
        world.answerUnit(unit(u"org.kestrum.palisade"_s), running);
        world.answerUnit(unit(u"org.kestrum.veldspar"_s), inactive);
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.palisade"_s)));
        QVERIFY(QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        // Only once the new unit runs; by then the first reload has let systemd forget the stopped
        // unit without a file, so there is nothing to stop under that label.
        QCOMPARE(changingCalls(world),
                 QStringList({u"daemon-reload"_s, u"enable org.kestrum.Veldspar.service"_s,
                              u"reset-failed org.kestrum.Veldspar.service"_s, u"restart org.kestrum.Veldspar.service"_s,
                              u"stop org.kestrum.palisade.service"_s, u"disable org.kestrum.palisade.service"_s,
                              u"daemon-reload"_s}));
    }

    void scriptUnitQuotesAHomeWithSpecials()
    {
        TestWorld world;
        world.useRealServiceScript();
        const QString oddHome = world.root() + u"/it's \"a\" 100% $HOME \\ place"_s;
        QDir().mkpath(oddHome);
        qputenv("HOME", QFile::encodeName(oddHome));
        QProcess script;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"PATH"_s, world.binFolder() + u":/usr/bin:/bin"_s);
        script.setProcessEnvironment(environment);
        script.setProcessChannelMode(QProcess::MergedChannels);
        script.start(u"/bin/bash"_s, {world.resources() + u"/ManageService.command"_s, u"enable"_s});
        QVERIFY(script.waitForFinished(30000));
        qputenv("HOME", QFile::encodeName(world.home()));
        QCOMPARE(script.exitCode(), 0);
        const QByteArray unitText = readTestFile(oddHome + u"/.config/systemd/user/org.kestrum.Veldspar.service"_s);
        QString escaped = oddHome + u"/.local/share/Veldspar"_s;
        escaped.replace(u'\\', u"\\\\"_s).replace(u'"', u"\\\""_s).replace(u'%', u"%%"_s).replace(u'$', u"$$"_s);
        QVERIFY2(unitText.contains((u"ExecStart=\"%1/Veldspar\" --config \"%1/config.json\"\n"_s.arg(escaped)).toUtf8()),
                 unitText.constData());
        QVERIFY(QFile::exists(oddHome + u"/.local/share/Veldspar/Veldspar"_s));
    }

    void scriptDisableStopsAndDeletesTheUnit()
    {
        TestWorld world;
        world.useRealServiceScript();
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        const qsizetype before = world.systemctlCalls().size();
        QCOMPARE(world.runServiceScript(u"disable"_s).status, 0);
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        QStringList after;
        for (const QStringList &call : world.systemctlCalls().mid(before))
            if (call.value(1) != u"show"_s)
                after << call.mid(1).join(u' ');
        QCOMPARE(after, QStringList({u"stop org.kestrum.Veldspar.service"_s, u"disable org.kestrum.Veldspar.service"_s,
                                     u"daemon-reload"_s}));
        // The installed executable stays for the next enable.
        QVERIFY(QFile::exists(world.home() + u"/.local/share/Veldspar/Veldspar"_s));
    }

    void scriptStopOnlyStops()
    {
        TestWorld world;
        world.useRealServiceScript();
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        const qsizetype before = world.systemctlCalls().size();
        QCOMPARE(world.runServiceScript(u"stop"_s).status, 0);
        QVERIFY(QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        QStringList after;
        for (const QStringList &call : world.systemctlCalls().mid(before))
            if (call.value(1) != u"show"_s)
                after << call.mid(1).join(u' ');
        QCOMPARE(after, QStringList({u"stop org.kestrum.Veldspar.service"_s}));
    }

    void scriptRemoveTakesEverythingDownAndIsIdempotent()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        world.writeUnitFile(u"org.kestrum.veldspar"_s);
        const TestWorld::ScriptRun first = world.runServiceScript(u"remove"_s);
        QCOMPARE(first.status, 0);
        for (const QString &label : {u"org.kestrum.Veldspar"_s, u"org.kestrum.veldspar"_s, u"org.kestrum.palisade"_s})
            QVERIFY(!QFile::exists(world.unitFilePath(label)));
        QVERIFY(!QFile::exists(world.home() + u"/.local/share/Veldspar/Veldspar"_s));
        QCOMPARE(world.readConfig(), QByteArray("{\"radios\": []}"));

        const qsizetype before = world.systemctlCalls().size();
        const TestWorld::ScriptRun again = world.runServiceScript(u"remove"_s);
        QCOMPARE(again.status, 0);
        QCOMPARE(again.output, QString());
        for (const QStringList &call : world.systemctlCalls().mid(before))
            QCOMPARE(call.value(1), u"show"_s); // looked, changed nothing
    }

    void scriptRemoveWithoutSystemdAndNothingInstalledSucceeds()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.makeSystemdUnavailable();
        QCOMPARE(world.runServiceScript(u"remove"_s).status, 0);
    }

    void scriptDisableAlsoTakesDownTheEarlierLabels()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeUnitFile(u"org.kestrum.veldspar"_s);
        world.answerUnit(unit(u"org.kestrum.veldspar"_s), running);
        world.answerUnit(unit(u"org.kestrum.palisade"_s), running);
        QCOMPARE(world.runServiceScript(u"disable"_s).status, 0);
        for (const QString &label : {u"org.kestrum.Veldspar"_s, u"org.kestrum.veldspar"_s, u"org.kestrum.palisade"_s})
            QVERIFY2(!QFile::exists(world.unitFilePath(label)), qPrintable(label));
        QCOMPARE(changingCalls(world),
                 QStringList({u"stop org.kestrum.veldspar.service"_s, u"disable org.kestrum.veldspar.service"_s,
                              u"stop org.kestrum.palisade.service"_s, u"daemon-reload"_s}));
    }

    void scriptStopAlsoStopsTheEarlierLabels()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeUnitFile(u"org.kestrum.palisade"_s);
        world.answerUnit(unit(u"org.kestrum.palisade"_s), running);
        QCOMPARE(world.runServiceScript(u"stop"_s).status, 0);
        QCOMPARE(changingCalls(world), QStringList({u"stop org.kestrum.palisade.service"_s}));
        // Stopping is not disabling: it still starts at the next login.
        QVERIFY(QFile::exists(world.unitFilePath(u"org.kestrum.palisade"_s)));
    }

    void scriptRemoveWithoutSystemctlSucceeds_data()
    {
        QTest::addColumn<bool>("installed");
        QTest::newRow("nothing installed") << false;
        QTest::newRow("files left from an earlier install") << true;
    }

    void scriptRemoveWithoutSystemctlSucceeds()
    {
        QFETCH(bool, installed);
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        const QString executable = world.home() + u"/.local/share/Veldspar/Veldspar"_s;
        const QString wanted = world.home() + u"/.config/systemd/user/default.target.wants/org.kestrum.Veldspar.service"_s;
        if (installed) {
            writeTestFile(executable, "service");
            world.writeUnitFile(u"org.kestrum.Veldspar"_s);
            world.writeUnitFile(u"org.kestrum.palisade"_s);
            QDir().mkpath(QFileInfo(wanted).path());
            QVERIFY(QFile::link(world.unitFilePath(u"org.kestrum.Veldspar"_s), wanted));
        }
        // A PATH with every tool the script uses, but no systemctl anywhere on it.
        const QString tools = world.root() + u"/tools-without-systemctl"_s;
        QDir().mkpath(tools);
        for (const QString &tool : {u"dirname"_s, u"rm"_s, u"mkdir"_s, u"mktemp"_s, u"cat"_s, u"mv"_s, u"cp"_s, u"chmod"_s})
            QVERIFY(QFile::link(u"/usr/bin/"_s + tool, tools + u'/' + tool));
        QProcess script;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, world.home());
        environment.insert(u"PATH"_s, tools);
        script.setProcessEnvironment(environment);
        script.setProcessChannelMode(QProcess::MergedChannels);
        script.start(u"/bin/bash"_s, {world.resources() + u"/ManageService.command"_s, u"remove"_s});
        QVERIFY(script.waitForFinished(30000));
        const QString output = QString::fromUtf8(script.readAll());
        QCOMPARE(output, QString());
        QCOMPARE(script.exitCode(), 0);
        QVERIFY(world.systemctlCalls().isEmpty());
        QVERIFY(!QFile::exists(executable));
        QVERIFY(!QFileInfo(wanted).isSymLink());
        for (const QString &label : {u"org.kestrum.Veldspar"_s, u"org.kestrum.veldspar"_s, u"org.kestrum.palisade"_s})
            QVERIFY2(!QFile::exists(world.unitFilePath(label)), qPrintable(label));
        QCOMPARE(world.readConfig(), QByteArray("{\"radios\": []}"));
    }

    void scriptFailedEnableLeavesNoUnitFile_data()
    {
        QTest::addColumn<QString>("refused");
        QTest::newRow("daemon-reload") << u"daemon-reload"_s;
        QTest::newRow("enable") << u"enable"_s;
        QTest::newRow("restart") << u"restart"_s;
    }

    void scriptFailedEnableLeavesNoUnitFile()
    {
        QFETCH(QString, refused);
        TestWorld world;
        world.useRealServiceScript();
        world.failSystemctl(refused);
        const TestWorld::ScriptRun run = world.runServiceScript(u"enable"_s);
        QCOMPARE(run.status, 1);
        // Still the one line that says what failed; a refused start adds what the journal holds.
        QVERIFY2(run.output.startsWith(u"Veldspar service: systemctl --user %1"_s.arg(refused)), qPrintable(run.output));
        if (refused == u"restart"_s)
            QCOMPARE(run.output.section(u'\n', 1), u"The journal has nothing from org.kestrum.Veldspar.service.\n"_s);
        else
            QCOMPARE(run.output.count(u'\n'), 1);
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        // The app's status monitor reads the missing unit file as not set up to start at login.
        QVERIFY(QDir(world.home() + u"/.config/systemd/user"_s).entryList(QDir::Files | QDir::Hidden).isEmpty());
    }

    void scriptFailuresSayWhatFailedInOneLine_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("breakWhat");
        QTest::addColumn<QString>("expected");
        QTest::newRow("restart refused") << u"enable"_s << u"restart"_s
                                         << u"Veldspar service: systemctl --user restart org.kestrum.Veldspar.service "
                                            "failed: Failed to restart org.kestrum.Veldspar.service: Access denied\n"
                                            "The journal has nothing from org.kestrum.Veldspar.service.\n"_s;
        QTest::newRow("no user session") << u"enable"_s << u"bus"_s
                                         << u"Veldspar service: systemctl --user daemon-reload failed: Failed to "
                                            "connect to bus: No medium found\n"_s;
        QTest::newRow("service executable missing") << u"enable"_s << u"executable"_s
                                                    << u"Veldspar service: the app's service executable is missing: "
                                                       "%1/Veldspar\n"_s;
        QTest::newRow("unknown word") << u"start"_s << QString()
                                      << u"Veldspar service: unknown action 'start'; use enable, disable, stop or "
                                         "remove\n"_s;
        QTest::newRow("stop refused") << u"remove"_s << u"stop"_s
                                      << u"Veldspar service: systemctl --user stop org.kestrum.Veldspar.service failed: "
                                         "Failed to stop org.kestrum.Veldspar.service: Access denied\n"_s;
    }

    void scriptFailuresSayWhatFailedInOneLine()
    {
        QFETCH(QString, action);
        QFETCH(QString, breakWhat);
        QFETCH(QString, expected);
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        if (breakWhat == u"bus"_s)
            world.makeSystemdUnavailable();
        else if (breakWhat == u"executable"_s)
            QFile::remove(world.resources() + u"/Veldspar"_s);
        else if (breakWhat == u"stop"_s) {
            world.answerUnit(unit(u"org.kestrum.Veldspar"_s), running);
            world.failSystemctl(breakWhat);
        } else if (!breakWhat.isEmpty())
            world.failSystemctl(breakWhat);
        const TestWorld::ScriptRun run = world.runServiceScript(action);
        QVERIFY(run.status != 0);
        QCOMPARE(run.output, expected.contains(u"%1"_s) ? expected.arg(world.resources()) : expected);
        QCOMPARE(world.readConfig(), QByteArray("{\"radios\": []}"));
    }

    // The uninstall.

    // The installer's copy with its launcher entry, icon and AppStream description, installed
    // twice; the uninstall then leaves no file of it outside the Trash.
    void uninstallLeavesNothingTheInstallerAdded()
    {
        TestWorld world;
        // The built bundle, with the world's stand-ins for the service and its script.
        const QString download = world.root() + u"/download/Veldspar.app"_s;
        QDir().mkpath(download);
        QVERIFY(runProcess(u"/bin/cp"_s, {u"-a"_s, u"--"_s, u"" VELDSPAR_BUILT_BUNDLE "/."_s, download}).succeeded());
        for (const QString &standIn : {u"Veldspar"_s, u"ManageService.command"_s}) {
            QVERIFY(QFile::remove(download + u"/Resources/"_s + standIn));
            QVERIFY(QFile::copy(world.resources() + u'/' + standIn, download + u"/Resources/"_s + standIn));
        }
        const QStringList before = filesOutsideTheTrash(world.home());
        for (int run = 0; run < 2; ++run) {
            const QString failed = runInstaller({u"--bundle"_s, download});
            QVERIFY2(failed.isEmpty(), qPrintable(failed));
        }
        const QString installed = world.home() + u"/Applications/Veldspar.app"_s;
        const QString desktop = world.home() + u"/.local/share"_s;
        for (const QString &added : {installed + u"/Veldspar"_s,
                                     desktop + u"/applications/org.kestrum.Veldspar.configure.desktop"_s,
                                     desktop + u"/icons/hicolor/scalable/apps/org.kestrum.Veldspar.configure.svg"_s,
                                     desktop + u"/metainfo/org.kestrum.Veldspar.configure.metainfo.xml"_s})
            QVERIFY2(QFileInfo::exists(added), qPrintable(added));
        world.adoptBundle(installed);
        world.writeConfig(configWith({}));
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] { running.click(running.button(u"Uninstall"_s)); });
        QCOMPARE(code, 0);
        QVERIFY(!QFileInfo::exists(installed));
        QVERIFY(QFileInfo(world.home() + u"/.local/share/Trash/files/Veldspar.app/Veldspar"_s).isFile());
        QCOMPARE(filesOutsideTheTrash(world.home()), before);
    }

    void uninstallMovesTheAppToTheTrashRemovesTheDataAndQuits()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        writeTestFile(world.home() + u"/.local/share/Palisade/config.json"_s, "{}");
        writeTestFile(world.home() + u"/.config/org.kestrum.Veldspar.configure.conf"_s, "[General]\nSUAutomaticChecks=true\n");
        writeTestFile(world.home() + u"/.local/share/applications/org.kestrum.Veldspar.configure.desktop"_s, "[Desktop Entry]\n");
        writeTestFile(world.home() + u"/.cache/org.kestrum.veldspar.configure/x"_s, "x");
        const QString app = world.bundle();
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] { running.click(running.button(u"Uninstall"_s)); });
        QCOMPARE(code, 0);
        QCOMPARE(answers.shown().size(), 1); // only the confirmation
        QVERIFY(!QFileInfo::exists(app));
        const QString trashed = world.home() + u"/.local/share/Trash/files/Veldspar.app"_s;
        QVERIFY(QFileInfo(trashed + u"/Resources"_s).isDir());
        // The script stand-in recorded its action inside the bundle, which went along.
        QCOMPARE(readTestFile(trashed + u"/Resources/service.d/actions"_s), QByteArray("remove\n"));
        QVERIFY(QFile::exists(world.home() + u"/.local/share/Trash/info/Veldspar.app.trashinfo"_s));
        for (const QString &gone : {u".local/share/Veldspar"_s, u".local/share/Palisade"_s,
                                    u".config/org.kestrum.Veldspar.configure.conf"_s,
                                    u".local/share/applications/org.kestrum.Veldspar.configure.desktop"_s,
                                    u".cache/org.kestrum.veldspar.configure"_s})
            QVERIFY2(!QFileInfo::exists(world.home() + u'/' + gone), qPrintable(gone));
        QVERIFY(world.pkexecCalls().isEmpty());
    }

    void uninstallFromACopyLeavesEverything()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        world.moveBundle(u"Veldspar copy.app"_s);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        app.click(app.button(u"Uninstall"_s));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"remove"_s}));
        QCOMPARE(app.statusText(), u"Service removed. Cannot identify the installed app."_s);
        QVERIFY(QFileInfo(world.bundle()).isDir());
        QVERIFY(world.configExists());
        QVERIFY(!app.app().isBusy());
    }

    // Started through a link named "Veldspar.app", the app's location is the link (see
    // tst_platform's bundleLocationIsThePathAsStarted): the uninstall takes the link away and
    // leaves the bundle it points to.
    void uninstallThroughALinkRemovesTheLinkOnly_data()
    {
        QTest::addColumn<bool>("privileged");
        QTest::newRow("ordinary move") << false;
        QTest::newRow("privileged move") << true;
    }

    void uninstallThroughALinkRemovesTheLinkOnly()
    {
        QFETCH(bool, privileged);
        TestWorld world;
        world.writeConfig(configWith({}));
        world.moveBundle(u"store/Veldspar.app"_s);
        const QString real = world.bundle();
        const QString applications = world.root() + u"/Applications"_s;
        const QString link = applications + u"/Veldspar.app"_s;
        QVERIFY(QDir().mkpath(applications));
        QVERIFY(QFile::link(real, link));
        setBundleLocationForTesting(link);
        if (privileged)
            QVERIFY(QFile::setPermissions(applications, QFile::ReadOwner | QFile::ExeOwner));
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] { running.click(running.button(u"Uninstall"_s)); });
        QFile::setPermissions(applications, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(code, 0);
        QVERIFY(!QFileInfo(link).exists() && !QFileInfo(link).isSymLink());
        QVERIFY(QFileInfo(real + u"/Resources/ManageService.command"_s).isFile());
        QCOMPARE(world.serviceActions(), QStringList({u"remove"_s}));
        const QDir trash(world.home() + u"/.local/share/Trash/files"_s);
        const QFileInfoList trashed = trash.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System);
        QCOMPARE(trashed.size(), 1);
        QVERIFY(trashed.first().isSymLink());
        QCOMPARE(trashed.first().symLinkTarget(), real);
        const QByteArray info = readTestFile(world.home() + u"/.local/share/Trash/info/"_s + trashed.first().fileName()
                                             + u".trashinfo"_s);
        QVERIFY2(info.startsWith("[Trash Info]\nPath=" + QUrl::toPercentEncoding(link, "/") + '\n'), info.constData());
        QCOMPARE(world.pkexecCalls().size(), privileged ? 1 : 0);
        if (privileged)
            QCOMPARE(world.pkexecCalls().first().value(3), link);
        QVERIFY(!world.configExists());
    }

    void uninstallThroughALinkOfAnotherNameLeavesEverything()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        world.moveBundle(u"store/Veldspar.app"_s);
        const QString link = world.root() + u"/Veldspar-beta.app"_s;
        QVERIFY(QFile::link(world.bundle(), link));
        setBundleLocationForTesting(link);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        app.click(app.button(u"Uninstall"_s));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.serviceActions(), QStringList({u"remove"_s}));
        QCOMPARE(app.statusText(), u"Service removed. Cannot identify the installed app."_s);
        QVERIFY(QFileInfo(link).isSymLink());
        QVERIFY(QFileInfo(world.bundle()).isDir());
        QVERIFY(world.configExists());
    }

    void privilegedMoveGetsTheExactPathAndTheTrashRecordsIt()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        world.moveBundle(u"it's \"odd\" \\ place/Veldspar.app"_s);
        const QString app = world.bundle();
        const QString parent = QFileInfo(app).path();
        // A folder the user may not change: the ordinary move to the Trash fails.
        QVERIFY(QFile::setPermissions(parent, QFile::ReadOwner | QFile::ExeOwner));
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] { running.click(running.button(u"Uninstall"_s)); });
        QFile::setPermissions(parent, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(code, 0);
        QCOMPARE(world.pkexecCalls().size(), 1);
        const QStringList move = world.pkexecCalls().first();
        QCOMPARE(move.mid(0, 4), QStringList({u"/bin/mv"_s, u"-n"_s, u"--"_s, app}));
        const QString destination = move.value(4);
        const QString trashFiles = world.home() + u"/.local/share/Trash/files/"_s;
        QVERIFY2(QRegularExpression(u"^"_s + QRegularExpression::escape(trashFiles)
                                    + u"Veldspar-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.app$"_s)
                     .match(destination)
                     .hasMatch(),
                 qPrintable(destination));
        QVERIFY(!QFileInfo::exists(app));
        QVERIFY(QFileInfo(destination + u"/Resources"_s).isDir());
        const QString name = QFileInfo(destination).fileName();
        const QByteArray info = readTestFile(world.home() + u"/.local/share/Trash/info/"_s + name + u".trashinfo"_s);
        QVERIFY2(info.startsWith("[Trash Info]\nPath=" + QUrl::toPercentEncoding(app, "/") + "\nDeletionDate="),
                 info.constData());
        QVERIFY(info.contains("%27") && info.contains("%22") && info.contains("%5C") && info.contains("%20"));
        QVERIFY(!world.configExists());
    }

    void windowKeepsTurningWhileThePrivilegedMoveWaits()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        world.moveBundle(u"locked/Veldspar.app"_s);
        const QString app = world.bundle();
        const QString parent = QFileInfo(app).path();
        QVERIFY(QFile::setPermissions(parent, QFile::ReadOwner | QFile::ExeOwner));
        // pkexec as a user meets it: the prompt stays up a while before the move happens.
        const QString started = world.root() + u"/move.started"_s;
        const QString answered = world.root() + u"/move.answered"_s;
        const QString slowPkexec = world.binFolder() + u"/slow-pkexec"_s;
        writeTestFile(slowPkexec, "#!/bin/sh\ntouch '" + QFile::encodeName(started) + "'\nsleep 1.5\ntouch '"
                                      + QFile::encodeName(answered) + "'\nexec '"
                                      + QFile::encodeName(world.binFolder()) + "/pkexec' \"$@\"\n");
        QFile::setPermissions(slowPkexec, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        setPkexecProgramForTesting(slowPkexec);
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        DialogAnswerer answers;
        // Counts the turns of the event loop while the prompt is up, and what the window says then.
        int ticksWhilePrompting = 0;
        bool busyWhilePrompting = false;
        QString statusWhilePrompting;
        QTimer ticker;
        ticker.setInterval(20);
        connect(&ticker, &QTimer::timeout, [&] {
            if (QFileInfo::exists(started) && !QFileInfo::exists(answered)) {
                ++ticksWhilePrompting;
                busyWhilePrompting = running.app().isBusy();
                statusWhilePrompting = running.statusText();
            }
        });
        ticker.start();
        const int code = runEventLoop([&] { running.click(running.button(u"Uninstall"_s)); });
        QFile::setPermissions(parent, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(code, 0);
        QVERIFY2(ticksWhilePrompting >= 2, qPrintable(QString::number(ticksWhilePrompting)));
        QVERIFY(busyWhilePrompting);
        QCOMPARE(statusWhilePrompting, u"Removing Veldspar\u2026"_s);
        // The outcome is the one the waiting move had: the app is in the Trash, recorded there.
        QCOMPARE(world.pkexecCalls().size(), 1);
        const QString destination = world.pkexecCalls().first().value(4);
        QVERIFY(!QFileInfo::exists(app));
        QVERIFY(QFileInfo(destination + u"/Resources"_s).isDir());
        QVERIFY(QFile::exists(world.home() + u"/.local/share/Trash/info/"_s + QFileInfo(destination).fileName()
                              + u".trashinfo"_s));
        QVERIFY(!world.configExists());
    }

    void cancelledPromptLeavesEverythingAndSaysRetry_data()
    {
        QTest::addColumn<QString>("pkexecAnswer");
        QTest::addColumn<QString>("tip");
        QTest::newRow("dismissed") << u"dismiss"_s << u"Error executing command as another user: Request dismissed"_s;
        QTest::newRow("refused") << u"deny"_s << u"Error executing command as another user: Not authorized"_s;
        QTest::newRow("nothing moved") << u"ignore"_s << QString();
    }

    void cancelledPromptLeavesEverythingAndSaysRetry()
    {
        QFETCH(QString, pkexecAnswer);
        QFETCH(QString, tip);
        TestWorld world;
        world.writeConfig(configWith({}));
        // The store of a copy launched before, so that this launch has nothing to mark in it.
        const QByteArray settings = "[General]\nSUHasLaunchedBefore=true\nkept=1\n";
        writeTestFile(world.home() + u"/.config/org.kestrum.Veldspar.configure.conf"_s, settings);
        world.moveBundle(u"locked/Veldspar.app"_s);
        const QString parent = QFileInfo(world.bundle()).path();
        QVERIFY(QFile::setPermissions(parent, QFile::ReadOwner | QFile::ExeOwner));
        world.setPkexecAnswer(pkexecAnswer);
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] {
            app.click(app.button(u"Uninstall"_s));
            QTimer::singleShot(3000, [] { QCoreApplication::exit(7); });
        });
        QFile::setPermissions(parent, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(code, 7); // still running
        QCOMPARE(app.statusText(), retry);
        QCOMPARE(app.status()->toolTip(), tip);
        QVERIFY(!app.app().isBusy());
        QVERIFY(QFileInfo(world.bundle()).isDir());
        QVERIFY(world.configExists());
        QCOMPARE(readTestFile(world.home() + u"/.config/org.kestrum.Veldspar.configure.conf"_s), settings);
    }

    void trashThatCannotBeMadeIsReported()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        // ~/.local/share/Trash cannot be created: a file is in the way.
        writeTestFile(world.home() + u"/.local/share/Trash"_s, "not a folder");
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] {
            app.click(app.button(u"Uninstall"_s));
            QTimer::singleShot(3000, [] { QCoreApplication::exit(7); });
        });
        QCOMPARE(code, 7);
        QCOMPARE(app.statusText(), u"Service removed. Could not move the app to Trash."_s);
        QVERIFY(!app.status()->toolTip().isEmpty());
        QVERIFY(QFileInfo(world.bundle()).isDir());
        QVERIFY(world.pkexecCalls().isEmpty());
        QVERIFY(!QFileInfo::exists(QDir::currentPath() + u"/files"_s)); // nothing strayed elsewhere
    }

    void dataThatCannotBeDeletedIsListed()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        writeTestFile(world.home() + u"/.cache/org.kestrum.Veldspar.configure/state"_s, "x");
        writeTestFile(world.home() + u"/.cache/org.kestrum.veldspar.configure/state"_s, "x");
        const QString cache = world.home() + u"/.cache"_s;
        QVERIFY(QFile::setPermissions(cache, QFile::ReadOwner | QFile::ExeOwner));
        RunningApp app(world);
        QVERIFY(app.waitForServiceStatus());
        DialogAnswerer answers;
        const int code = runEventLoop([&] { app.click(app.button(u"Uninstall"_s)); });
        QFile::setPermissions(cache, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(code, 0); // it still quits, after the report
        QCOMPARE(answers.shown().size(), 2);
        QCOMPARE(answers.shown().at(1).texts,
                 QStringList({u"Some application data could not be removed"_s,
                              u".cache/org.kestrum.Veldspar.configure\n.cache/org.kestrum.veldspar.configure"_s}));
        QVERIFY(!answers.shown().at(1).hasCancel);
        QCOMPARE(app.statusText(), u"App and service removed; some data could not be deleted. See details."_s);
        QVERIFY(!world.configExists()); // what could go, went
    }

    // ---- The service's live state ----

    void aWellFormedStateFileIsRead()
    {
        const QByteArray bytes = R"({
            "pid": 4242, "written": "2026-11-23T14:05:00.000Z",
            "radios": [
              {"serialNumber": "0621-1104-7402", "ipAddress": "10.8.0.20", "name": "Shack", "state": "announced",
               "since": "2026-11-23T14:02:00.000Z", "lastBeacon": "2026-11-23T14:04:59.000Z", "status": "Available",
               "licensedClients": 2, "guiClients": [{"program": "SmartSDR-Win", "station": "OFFICE-WIN"}]},
              {"serialNumber": "9999", "ipAddress": "10.8.0.21", "name": "Gone", "state": "notAnswering",
               "reason": "connection refused", "since": "2026-11-23T14:03:00.000Z", "lastBeacon": null}
            ]})";
        const std::optional<ServiceLiveState> state = parseLiveState(bytes);
        QVERIFY(state);
        QCOMPARE(state->pid, 4242);
        QCOMPARE(state->radios.size(), 2);
        const LiveRadio &first = state->radios.at(0);
        QCOMPARE(first.serialNumber, u"0621-1104-7402"_s);
        QCOMPARE(first.ipAddress, u"10.8.0.20"_s);
        QCOMPARE(first.phase, LiveRadio::Phase::Announced);
        QCOMPARE(first.since, QDateTime(QDate(2026, 11, 23), QTime(14, 2), QTimeZone::utc()));
        QCOMPARE(first.licensedClients, 2);
        QCOMPARE(first.guiClients, (QList<std::pair<QString, QString>>{{u"SmartSDR-Win"_s, u"OFFICE-WIN"_s}}));
        QCOMPARE(state->radios.at(1).phase, LiveRadio::Phase::NotAnswering);
        QCOMPARE(state->radios.at(1).reason, u"connection refused"_s);
    }

    void aBrokenStateFileIsNotRead_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray radio = R"({"serialNumber": "1", "ipAddress": "10.0.0.1", "state": "announced", "since": "2026-11-23T14:02:00Z"})";
        const auto with = [](const QByteArray &radios) { return R"({"pid": 42, "radios": [)" + radios + "]}"; };
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("half written") << with(radio).left(40);
        QTest::newRow("garbage") << QByteArray("\x7f" "ELF\x02\x01\x01\0\0\0", 10);
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("no pid") << QByteArray(R"({"radios": []})");
        QTest::newRow("pid zero") << QByteArray(R"({"pid": 0, "radios": []})");
        QTest::newRow("pid as text") << QByteArray(R"({"pid": "42", "radios": []})");
        QTest::newRow("radios not a list") << QByteArray(R"({"pid": 42, "radios": {}})");
        QTest::newRow("not UTF-8") << with(QByteArray(radio).replace("10.0.0.1", "10.0.\xff.1"));
        QByteArray huge = with(radio);
        huge.append(QByteArray(largestLiveState, ' '));
        QTest::newRow("too large") << huge;
    }

    void aBrokenStateFileIsNotRead()
    {
        QFETCH(QByteArray, bytes);
        QVERIFY(!parseLiveState(bytes));
    }

    // One radio's bad entry (an older service wrote a 1,119-character serial) leaves it out,
    // and every other radio still shows its state.
    void aBadRadioEntryIsLeftOutAndTheOthersRead_data()
    {
        QTest::addColumn<QByteArray>("bad");
        const QByteArray radio = R"({"serialNumber": "1", "ipAddress": "10.0.0.1", "state": "announced", "since": "2026-11-23T14:02:00Z"})";
        QTest::newRow("radio not an object") << QByteArray("7");
        QTest::newRow("unknown state") << QByteArray(radio).replace("announced", "dancing");
        QTest::newRow("no since") << QByteArray(R"({"serialNumber": "1", "ipAddress": "10.0.0.1", "state": "announced"})");
        QTest::newRow("since not a time") << QByteArray(radio).replace("2026-11-23T14:02:00Z", "yesterday");
        QTest::newRow("serial a number") << QByteArray(radio).replace("\"1\"", "1");
        QTest::newRow("clients not a list") << QByteArray(radio).replace("}", R"(, "guiClients": "x"})");
        QTest::newRow("client without station") << QByteArray(radio).replace("}", R"(, "guiClients": [{"program": "x"}]})");
        QTest::newRow("negative clients") << QByteArray(radio).replace("}", R"(, "licensedClients": -1})");
        QTest::newRow("serial of 1119 characters") << QByteArray(radio).replace("\"1\"", '"' + QByteArray(1119, '7') + '"');
        QTest::newRow("serial of 33 characters") << QByteArray(radio).replace("\"1\"", '"' + QByteArray(33, '7') + '"');
        QTest::newRow("address too long") << QByteArray(radio).replace("10.0.0.1", QByteArray(260, 'h'));
        QTest::newRow("reason too long")
            << QByteArray(radio).replace("announced", "notAnswering").replace("}", ", \"reason\": \"" + QByteArray(513, 'r') + "\"}");
        QTest::newRow("station too long")
            << QByteArray(radio).replace("}", ", \"guiClients\": [{\"program\": \"x\", \"station\": \"" + QByteArray(65, 's') + "\"}]}");
    }

    void aBadRadioEntryIsLeftOutAndTheOthersRead()
    {
        QFETCH(QByteArray, bad);
        const QByteArray good = R"({"serialNumber": "0621-1104-7402", "ipAddress": "10.8.0.20", "state": "announced",
            "since": "2026-11-23T14:02:00.000Z", "status": "Available", "licensedClients": 2, "guiClients": []})";
        const QByteArray other = R"json({"serialNumber": "9999", "ipAddress": "10.8.0.21", "state": "notAnnounced",
            "reason": "its beacon cannot be sent (Network unreachable)", "since": "2026-11-23T14:03:00.000Z"})json";
        const std::optional<ServiceLiveState> state =
            parseLiveState(R"({"pid": 4242, "radios": [)" + good + ", " + bad + ", " + other + "]}");
        QVERIFY(state);
        QCOMPARE(state->radios.size(), 2);
        QCOMPARE(state->radios.at(0).serialNumber, u"0621-1104-7402"_s);
        QCOMPARE(state->radios.at(0).phase, LiveRadio::Phase::Announced);
        QCOMPARE(state->radios.at(1).serialNumber, u"9999"_s);
        QCOMPARE(state->radios.at(1).phase, LiveRadio::Phase::NotAnnounced);
        QCOMPARE(state->radios.at(1).reason, u"its beacon cannot be sent (Network unreachable)"_s);
        const RadioEntry entry{{u"serialNumber"_s, u"0621-1104-7402"_s}, {u"ipAddress"_s, u"10.8.0.20"_s}, {u"enabled"_s, true}};
        QCOMPARE(int(announcementFor(entry, LiveRadioIndex(state), QTimeZone::utc()).kind), int(Announcement::Kind::Announced));
    }

    void textsAsLongAsARadiosAreRead()
    {
        const QJsonObject radio{{u"serialNumber"_s, QString(longestSerialNumber, u'7')},
                                {u"ipAddress"_s, QString(longestRadioAddress, u'h')},
                                {u"state"_s, u"notAnswering"_s},
                                {u"reason"_s, QString(longestReason, u'r')},
                                {u"since"_s, u"2026-11-23T14:02:00Z"_s}};
        const std::optional<ServiceLiveState> state =
            parseLiveState(QJsonDocument(QJsonObject{{u"pid"_s, 42}, {u"radios"_s, QJsonArray{radio}}}).toJson());
        QVERIFY(state);
        QCOMPARE(state->radios.size(), 1);
    }

    void eachRadioGetsItsAnnouncement()
    {
        const QTimeZone zone(3600);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        ServiceLiveState live;
        live.pid = 42;
        live.radios = {
            {u"A-1"_s, u"10.0.0.1"_s, LiveRadio::Phase::Announced, QString(), now, u"Available"_s, 2,
             {{u"SmartSDR-Win"_s, u"OFFICE-WIN"_s}}},
            {u"B-2"_s, u"10.0.0.2"_s, LiveRadio::Phase::NotAnswering, u"connection refused"_s, now, QString(), 0, {}},
            {u"C-3"_s, u"10.0.0.3"_s, LiveRadio::Phase::Connecting, QString(), now, QString(), 0, {}},
            {u"D-4"_s, u"10.0.0.4"_s, LiveRadio::Phase::NotAnswering, u"no answer to info"_s, now.addDays(-2), QString(), 0, {}},
            {u"E-5"_s, u"10.0.0.5"_s, LiveRadio::Phase::Announced, QString(), now, u"In_Use"_s, 2,
             {{u"SmartSDR-Win"_s, u"OFFICE-WIN"_s}, {u"SmartSDR-M"_s, QString()}}},
            {u"F-6"_s, u"10.0.0.6"_s, LiveRadio::Phase::Announced, QString(), now, u"Available"_s, 2, {}},
            {u"H-8"_s, u"10.0.0.8"_s, LiveRadio::Phase::NotAnnounced,
             u"Radio Shack at 10.0.0.6 has the same serial number H-8 and comes first in the configuration"_s, now, QString(), 0, {}},
        };
        const auto entry = [](const QString &serial, const QString &address, const QJsonValue &enabled = true) {
            return QJsonObject{{u"serialNumber"_s, serial}, {u"ipAddress"_s, address}, {u"enabled"_s, enabled}};
        };
        const auto check = [&](const RadioEntry &radio, const std::optional<ServiceLiveState> &state,
                               Announcement::Kind kind, const QString &line) {
            const Announcement shown = announcementFor(radio, LiveRadioIndex(state), zone);
            QCOMPARE(int(shown.kind), int(kind));
            QCOMPARE(shown.line, line);
        };
        check(entry(u"A-1"_s, u"10.0.0.1"_s), live, Announcement::Kind::Announced,
              u"Announced \u00B7 1 of 2 clients in use (SmartSDR-Win at OFFICE-WIN)"_s);
        check(entry(u"E-5"_s, u"10.0.0.5"_s), live, Announcement::Kind::Announced,
              u"Announced \u00B7 2 of 2 clients in use (SmartSDR-Win at OFFICE-WIN, SmartSDR-M)"_s);
        check(entry(u"F-6"_s, u"10.0.0.6"_s), live, Announcement::Kind::Announced, u"Announced \u00B7 0 of 2 clients in use"_s);
        check(entry(u"B-2"_s, u"10.0.0.2"_s), live, Announcement::Kind::NotAnswering,
              u"Not answering: connection refused, since "_s + now.toTimeZone(zone).toString(u"HH:mm"_s));
        check(entry(u"D-4"_s, u"10.0.0.4"_s), live, Announcement::Kind::NotAnswering,
              u"Not answering: no answer to info, since "_s + now.addDays(-2).toTimeZone(zone).toString(u"yyyy-MM-dd HH:mm"_s));
        check(entry(u"C-3"_s, u"10.0.0.3"_s), live, Announcement::Kind::Connecting, u"Connecting\u2026"_s);
        check(entry(u"H-8"_s, u"10.0.0.8"_s), live, Announcement::Kind::NotAnnounced,
              u"Not announced: Radio Shack at 10.0.0.6 has the same serial number H-8 and comes first in the configuration, "
              u"since "_s + now.toTimeZone(zone).toString(u"HH:mm"_s));
        // Not in the file yet (just added), or the same serial at another address: connecting.
        check(entry(u"G-7"_s, u"10.0.0.7"_s), live, Announcement::Kind::Connecting, u"Connecting\u2026"_s);
        check(entry(u"A-1"_s, u"10.0.0.9"_s), live, Announcement::Kind::Connecting, u"Connecting\u2026"_s);
        // Excluded radios are grey whatever the service says; without a service, every radio is.
        check(entry(u"A-1"_s, u"10.0.0.1"_s, false), live, Announcement::Kind::Excluded,
              u"Not announced: excluded from discovery"_s);
        check(entry(u"A-1"_s, u"10.0.0.1"_s, u"true"_s), live, Announcement::Kind::Excluded,
              u"Not announced: excluded from discovery"_s);
        check(entry(u"A-1"_s, u"10.0.0.1"_s), std::nullopt, Announcement::Kind::ServiceStopped,
              u"Not announced: the service is not running"_s);
    }

    void oneRadiosOverlongSerialLeavesTheOthersShown()
    {
        TestWorld world;
        const QString overlong(1119, u'7');
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s), radio(u"10.0.0.2"_s, overlong, u"Bravo"_s),
                                      radio(u"10.0.0.3"_s, u"C-3"_s, u"Charlie"_s)}));
        const QDateTime since = QDateTime::currentDateTime();
        publishState(world, stateFile(QCoreApplication::applicationPid(), {
            liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"announced"_s, since, {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2}}),
            liveEntry(overlong, u"10.0.0.2"_s, u"announced"_s, since, {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2}}),
            liveEntry(u"C-3"_s, u"10.0.0.3"_s, u"notAnnounced"_s, since,
                      {{u"reason"_s, u"its beacon cannot be sent (Network unreachable)"_s}}),
        }));
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        const QStringList expected = {
            u"Alpha, 10.0.0.1, Enabled, Announced \u00B7 0 of 2 clients in use"_s,
            u"Bravo, 10.0.0.2, Enabled, Connecting\u2026"_s,
            u"Charlie, 10.0.0.3, Enabled, Not announced: its beacon cannot be sent (Network unreachable), since "_s
                + since.toString(u"HH:mm"_s),
        };
        QTRY_COMPARE(spokenRows(app), expected);
        QVERIFY(sameColour(dotColour(app, 2), dangerColor()));
    }

    void theAppShowsWhatTheServiceSaysOfEachRadio()
    {
        TestWorld world;
        QJsonObject excluded = radio(u"10.0.0.4"_s, u"D-4"_s, u"Delta"_s);
        excluded.insert(u"enabled"_s, false);
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s), radio(u"10.0.0.2"_s, u"B-2"_s, u"Bravo"_s),
                                      radio(u"10.0.0.3"_s, u"C-3"_s, u"Charlie"_s), excluded}));
        const QDateTime since = QDateTime::currentDateTime();
        const qint64 me = QCoreApplication::applicationPid();
        publishState(world, stateFile(me, {
            liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"announced"_s, since,
                      {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2},
                       {u"guiClients"_s, QJsonArray{QJsonObject{{u"program"_s, u"SmartSDR-Win"_s}, {u"station"_s, u"OFFICE-WIN"_s}}}}}),
            liveEntry(u"B-2"_s, u"10.0.0.2"_s, u"notAnswering"_s, since, {{u"reason"_s, u"connection refused"_s}}),
            liveEntry(u"C-3"_s, u"10.0.0.3"_s, u"connecting"_s, since),
        }));
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));

        const QString at = since.toString(u"HH:mm"_s);
        const QStringList expected = {
            u"Alpha, 10.0.0.1, Enabled, Announced \u00B7 1 of 2 clients in use (SmartSDR-Win at OFFICE-WIN)"_s,
            u"Bravo, 10.0.0.2, Enabled, Not answering: connection refused, since "_s + at,
            u"Charlie, 10.0.0.3, Enabled, Connecting\u2026"_s,
            u"Delta, 10.0.0.4, Disabled, Not announced: excluded from discovery"_s,
        };
        QTRY_COMPARE(spokenRows(app), expected);
        QVERIFY(sameColour(dotColour(app, 1), dangerColor()));
        QVERIFY(sameColour(dotColour(app, 2), warningColor()));
        QVERIFY(sameColour(dotColour(app, 3), neutralColor()));
        app.selectRow(1);
        QVERIFY(sameColour(dotColour(app, 0), successColor()));

        // The details panel says it in one line beside the box, read out whole; at this width the
        // line gives way before its end.
        app.selectRow(0);
        const QString announced = u"Announced \u00B7 1 of 2 clients in use (SmartSDR-Win at OFFICE-WIN)"_s;
        QCOMPARE(app.announcement(), announced);
        QVERIFY(announced.startsWith(app.announcementLine()->text().remove(u'\u2026')));
        QCOMPARE(QAccessible::queryAccessibleInterface(app.announcementLine())->text(QAccessible::Name),
                 u"Announcement: Announced \u00B7 1 of 2 clients in use (SmartSDR-Win at OFFICE-WIN)"_s);
        app.selectRow(1);
        QCOMPARE(app.announcementLine()->text(), u"Not answering: connection refused, since "_s + at);

        // A new version of the file is shown as it lands, the selection kept.
        publishState(world, stateFile(me, {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"notAnswering"_s, since,
                                                     {{u"reason"_s, u"no answer to info"_s}}),
                                           liveEntry(u"B-2"_s, u"10.0.0.2"_s, u"announced"_s, since,
                                                     {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2},
                                                      {u"guiClients"_s, QJsonArray()}})}));
        QTRY_COMPARE(app.announcementLine()->text(), u"Announced \u00B7 0 of 2 clients in use"_s);
        QCOMPARE(app.selectedRow(), 1);
        QCOMPARE(spokenRows(app).at(0), u"Alpha, 10.0.0.1, Enabled, Not answering: no answer to info, since "_s + at);
        QCOMPARE(spokenRows(app).at(2), u"Charlie, 10.0.0.3, Enabled, Connecting\u2026"_s);

        // Gone: the service stopped; every radio grey, and no message about it.
        const QString status = app.statusText();
        QFile::remove(world.runtimeDir() + u"/Veldspar/state.json"_s);
        QTRY_COMPARE(app.announcementLine()->text(), u"Not announced: the service is not running"_s);
        QVERIFY(sameColour(dotColour(app, 0), neutralColor()));
        QCOMPARE(app.statusText(), status);
    }

    void aLineTooLongForThePanelGivesWayAtItsEnd()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s)}));
        QJsonArray clients;
        for (int i = 0; i < 4; ++i)
            clients.append(QJsonObject{{u"program"_s, u"SmartSDR-Win"_s}, {u"station"_s, u"CONTEST-OPERATING-POSITION-"_s + QString::number(i)}});
        publishState(world, stateFile(QCoreApplication::applicationPid(),
                                      {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"announced"_s, QDateTime::currentDateTime(),
                                                 {{u"status"_s, u"In_Use"_s}, {u"licensedClients"_s, 4}, {u"guiClients"_s, clients}})}));
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        app.selectRow(0);

        const QString whole = u"Announced \u00B7 4 of 4 clients in use (SmartSDR-Win at CONTEST-OPERATING-POSITION-0, "
                              "SmartSDR-Win at CONTEST-OPERATING-POSITION-1, SmartSDR-Win at CONTEST-OPERATING-POSITION-2, "
                              "SmartSDR-Win at CONTEST-OPERATING-POSITION-3)"_s;
        QLabel *line = app.announcementLine();
        QTRY_VERIFY(line->text().endsWith(u"\u2026"_s));
        QVERIFY(whole.startsWith(line->text().chopped(1)));
        // Shown in one line within the panel, the window no wider for it.
        QVERIFY(line->fontMetrics().horizontalAdvance(line->text()) <= line->contentsRect().width());
        QVERIFY(line->geometry().right() <= line->parentWidget()->contentsRect().right());
        QVERIFY(app.window()->width() < line->fontMetrics().horizontalAdvance(whole));
        // The whole line is still there to hover over and to hear.
        QCOMPARE(line->toolTip(), whole);
        QCOMPARE(QAccessible::queryAccessibleInterface(line)->text(QAccessible::Name), u"Announcement: "_s + whole);

        // A line that fits is shown whole, with no tool tip repeating it.
        publishState(world, stateFile(QCoreApplication::applicationPid(),
                                      {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"connecting"_s, QDateTime::currentDateTime())}));
        QTRY_COMPARE(line->text(), u"Connecting\u2026"_s);
        QVERIFY(line->toolTip().isEmpty());
    }

    void aBadStateFileChangesNothingOnScreen_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = stateFile(QCoreApplication::applicationPid(),
                                          {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"connecting"_s, QDateTime::currentDateTime())});
        QTest::newRow("garbage") << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
        QTest::newRow("half written") << good.left(good.size() / 2);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("huge") << QByteArray(good).append(QByteArray(largestLiveState, ' '));
    }

    void aBadStateFileChangesNothingOnScreen()
    {
        QFETCH(QByteArray, bytes);
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s)}));
        publishState(world, stateFile(QCoreApplication::applicationPid(),
                                      {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"notAnswering"_s, QDateTime::currentDateTime(),
                                                 {{u"reason"_s, u"connection refused"_s}})}));
        RunningApp app(world);
        QTRY_VERIFY(app.announcementLine()->text().startsWith(u"Not answering: connection refused"_s));
        const QString shown = app.announcementLine()->text();
        const QStringList rows = spokenRows(app);
        const QString status = app.statusText();
        DialogAnswerer answerer;

        publishState(world, bytes);
        // The watcher has long fired by then; a well-formed file lands well within it.
        QTest::qWait(700);
        QCOMPARE(app.announcementLine()->text(), shown);
        QCOMPARE(spokenRows(app), rows);
        QCOMPARE(app.statusText(), status);
        QVERIFY(answerer.shown().isEmpty());
    }

    void aFifoInPlaceOfTheStateFileIsNotWaitedFor()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s)}));
        const QString path = world.runtimeDir() + u"/Veldspar/state.json"_s;
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        QElapsedTimer clock;
        clock.start();
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        QVERIFY(clock.elapsed() < 10000); // a blocking open would never have returned
        QCOMPARE(spokenRows(app), QStringList{u"Alpha, 10.0.0.1, Enabled, Not announced: the service is not running"_s});
    }

    void aServiceStartedAfterTheAppIsShownOnceItsFolderAppears()
    {
        // The service's folder does not exist yet: nothing there to watch when the app starts.
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s)}));
        QVERIFY(!QFileInfo::exists(world.runtimeDir() + u"/Veldspar"_s));
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        QTRY_COMPARE(app.announcementLine()->text(), u"Not announced: the service is not running"_s);

        // The service starts, makes its folder and writes its first and, while nothing changes,
        // only version of the file.
        publishState(world, stateFile(QCoreApplication::applicationPid(),
                                      {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"announced"_s, QDateTime::currentDateTime(),
                                                 {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2},
                                                  {u"guiClients"_s, QJsonArray()}})}));
        // Within a status tick or two.
        QTRY_COMPARE_WITH_TIMEOUT(app.announcementLine()->text(), u"Announced \u00B7 0 of 2 clients in use"_s, 10000);
    }

    void aStateFileOfAGoneServiceShowsGrey()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(u"10.0.0.1"_s, u"A-1"_s, u"Alpha"_s)}));
        // A process that has ended: its id names nothing now.
        QProcess ended;
        ended.start(u"true"_s, {});
        QVERIFY(ended.waitForFinished(5000));
        const qint64 gone = ended.processId() > 0 ? ended.processId() : 4194303;
        QVERIFY(!processExists(gone));
        const auto announced = [](qint64 pid) {
            return stateFile(pid, {liveEntry(u"A-1"_s, u"10.0.0.1"_s, u"announced"_s, QDateTime::currentDateTime(),
                                             {{u"status"_s, u"Available"_s}, {u"licensedClients"_s, 2}})});
        };
        publishState(world, announced(gone));
        RunningApp app(world);
        QVERIFY(QTest::qWaitForWindowExposed(app.window()));
        QCOMPARE(app.announcementLine()->text(), u"Not announced: the service is not running"_s);

        // A service that dies without removing its file is noticed at the status monitor's tick.
        QProcess service;
        service.start(u"sleep"_s, {u"60"_s});
        QVERIFY(service.waitForStarted(5000));
        publishState(world, announced(service.processId()));
        QTRY_COMPARE(app.announcementLine()->text(), u"Announced \u00B7 0 of 2 clients in use"_s);
        service.kill();
        QVERIFY(service.waitForFinished(5000));
        QTRY_COMPARE_WITH_TIMEOUT(app.announcementLine()->text(), u"Not announced: the service is not running"_s, 10000);
    }

    // ---- Starting the service as a Type=notify unit, and taking it down ----

    void serviceSaysReadyOnceItsConfigurationIsReadAndStoppingAtSigterm()
    {
        TestWorld world;
        world.writeConfig("{\"radios\": []}");
        // Where a user manager keeps its notify socket.
        const QString socketPath = world.runtimeDir() + u"/systemd/notify"_s;
        QVERIFY(QDir().mkpath(QFileInfo(socketPath).path()));
        const int manager = notify::listen(QFile::encodeName(socketPath).toStdString());
        QVERIFY(manager >= 0);
        const auto closeSocket = qScopeGuard([manager] { ::close(manager); });
        const QString log = world.root() + u"/service.log"_s;
        QProcess service;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"NOTIFY_SOCKET"_s, socketPath);
        service.setProcessEnvironment(environment);
        service.setStandardOutputFile(QProcess::nullDevice());
        service.setStandardErrorFile(log);
        service.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        service.start(QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE), {u"--config"_s, world.configPath()});
        QVERIFY(service.waitForStarted(10000));

        const notify::Message ready = notify::receive(manager, 15000);
        // Read at once: what the service had written when it said it was ready.
        const QByteArray logAtReady = readTestFile(log);
        QCOMPARE(QByteArray::fromStdString(ready.text), QByteArray("READY=1"));
        QCOMPARE(ready.sender, service.processId()); // the main process, as NotifyAccess=main wants
        QVERIFY2(logAtReady.contains("Configuration loaded: 0 of 0 radios enabled"), logAtReady.constData());

        ::kill(pid_t(service.processId()), SIGTERM);
        const notify::Message stopping = notify::receive(manager, 10000);
        QCOMPARE(QByteArray::fromStdString(stopping.text), QByteArray("STOPPING=1"));
        QVERIFY(service.waitForFinished(10000));
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
        QCOMPARE(service.exitCode(), 0);
        QVERIFY(readTestFile(log).contains("Stopping (SIGTERM)."));
    }

    void serviceStartsUnderTheRealUserManager()
    {
        // Only where systemd-run reaches a user manager: it runs a transient unit there.
        QProcess probe;
        probe.setProcessChannelMode(QProcess::MergedChannels);
        probe.start(u"systemd-run"_s, {u"--user"_s, u"--quiet"_s, u"--wait"_s, u"--collect"_s, u"/bin/true"_s});
        if (!probe.waitForStarted(10000))
            QSKIP("systemd-run is not installed here");
        if (!probe.waitForFinished(30000)) {
            probe.kill();
            probe.waitForFinished(5000);
            QSKIP("systemd-run --user did not answer within 30 seconds here");
        }
        if (probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
            QSKIP(qPrintable(u"systemd-run --user does not work here (no user manager answers): "_s
                             + QString::fromUtf8(probe.readAll()).simplified()));

        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString runtime = dir.path() + u"/run"_s;
        QVERIFY(QDir().mkdir(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        writeTestFile(dir.path() + u"/config.json"_s, "{\"radios\": []}");
        const QString name = u"veldspar-readiness-%1.service"_s.arg(QCoreApplication::applicationPid());
        const auto run = [](const QString &program, const QStringList &arguments) {
            QProcess process;
            process.setProcessChannelMode(QProcess::MergedChannels);
            process.start(program, arguments);
            if (!process.waitForFinished(60000)) {
                process.kill();
                process.waitForFinished(5000);
            }
            return std::pair{process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                             QString::fromUtf8(process.readAll())};
        };
        // It returns once the start job ends: for Type=notify, at READY=1.
        const auto started = run(u"systemd-run"_s,
                                 {u"--user"_s, u"--quiet"_s, u"--collect"_s, u"--unit="_s + name, u"-p"_s, u"Type=notify"_s,
                                  u"-p"_s, u"NotifyAccess=main"_s, u"-p"_s, u"TimeoutStartSec=30"_s,
                                  u"--setenv=XDG_RUNTIME_DIR="_s + runtime, QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE),
                                  u"--config"_s, dir.path() + u"/config.json"_s});
        const auto state = run(u"systemctl"_s, {u"--user"_s, u"show"_s, u"--property=ActiveState,SubState"_s, name});
        const auto stopped = run(u"systemctl"_s, {u"--user"_s, u"stop"_s, name});
        QVERIFY2(started.first == 0, qPrintable(started.second));
        QCOMPARE(state.second, u"ActiveState=active\nSubState=running\n"_s);
        QVERIFY2(stopped.first == 0, qPrintable(stopped.second));
    }

    void scriptWithoutHomeSaysSoInOneLine_data()
    {
        QTest::addColumn<QString>("action");
        for (const QString &action : {u"enable"_s, u"disable"_s, u"stop"_s, u"remove"_s})
            QTest::newRow(qPrintable(action)) << action;
    }

    void scriptWithoutHomeSaysSoInOneLine()
    {
        QFETCH(QString, action);
        TestWorld world;
        world.useRealServiceScript();
        const TestWorld::ScriptRun run =
            world.runServiceScript(action, [](QProcessEnvironment &environment) { environment.remove(u"HOME"_s); });
        QCOMPARE(run.output, u"Veldspar service: HOME is not set, so the service's files cannot be found\n"_s);
        QCOMPARE(run.status, 1);
        QVERIFY(world.systemctlCalls().isEmpty());
    }

    void scriptRemoveSucceedsWhenNoUserManagerAnswers()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        const QString executable = world.home() + u"/.local/share/Veldspar/Veldspar"_s;
        writeTestFile(executable, "service");
        QStringList links;
        for (const QString &label : {u"org.kestrum.Veldspar"_s, u"org.kestrum.palisade"_s}) {
            world.writeUnitFile(label);
            const QString link = world.home() + u"/.config/systemd/user/default.target.wants/"_s + unit(label);
            QDir().mkpath(QFileInfo(link).path());
            QVERIFY(QFile::link(world.unitFilePath(label), link));
            links << link;
        }
        world.makeSystemdUnavailable();
        const TestWorld::ScriptRun run = world.runServiceScript(u"remove"_s);
        QCOMPARE(run.output, QString());
        QCOMPARE(run.status, 0);
        for (const QString &label : {u"org.kestrum.Veldspar"_s, u"org.kestrum.veldspar"_s, u"org.kestrum.palisade"_s})
            QVERIFY2(!QFile::exists(world.unitFilePath(label)), qPrintable(label));
        for (const QString &link : std::as_const(links))
            QVERIFY2(!QFileInfo(link).isSymLink(), qPrintable(link));
        QVERIFY(!QFile::exists(executable));
        QCOMPARE(world.readConfig(), QByteArray("{\"radios\": []}"));
        QVERIFY(changingCalls(world).isEmpty());
    }

    void scriptEnableThatSystemdRefusesLeavesTheEarlierLabelsRunning()
    {
        TestWorld world;
        world.useRealServiceScript();
        runEarlierService(world);
        world.answerUnit(unit(u"org.kestrum.veldspar"_s), running);
        world.failSystemctl(u"restart"_s);
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 1);
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        // The earlier service goes on serving, set up as it was.
        QVERIFY(QFile::exists(world.unitFilePath(u"org.kestrum.palisade"_s)));
        QCOMPARE(world.unitAnswer(unit(u"org.kestrum.palisade"_s)), running);
        QCOMPARE(world.unitAnswer(unit(u"org.kestrum.veldspar"_s)), running);
        for (const QString &call : changingCalls(world))
            QVERIFY2(call.endsWith(u"org.kestrum.Veldspar.service"_s) || call == u"daemon-reload"_s, qPrintable(call));
    }

    void scriptWritesANotifyUnitWithAStartLimit()
    {
        TestWorld world;
        world.useRealServiceScript();
        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        const QByteArray text = readTestFile(world.unitFilePath(u"org.kestrum.Veldspar"_s));
        QMap<QString, QString> keys; // "[Section]Key" -> value
        QString section;
        for (const QString &line : QString::fromUtf8(text).split(u'\n')) {
            if (line.startsWith(u'['))
                section = line;
            else if (line.contains(u'='))
                keys.insert(section + line.section(u'=', 0, 0), line.section(u'=', 1));
        }
        QCOMPARE(keys.value(u"[Service]Type"_s), u"notify"_s);
        QCOMPARE(keys.value(u"[Service]NotifyAccess"_s), u"main"_s);
        // A service that never says it is ready fails its start in bounded time.
        QVERIFY(keys.value(u"[Service]TimeoutStartSec"_s).toInt() > 0);
        // The start limit is read from [Unit] only, and a crash loop reaches it: the burst's restarts,
        // RestartSec apart, all fall within the interval.
        const int interval = keys.value(u"[Unit]StartLimitIntervalSec"_s).toInt();
        const int burst = keys.value(u"[Unit]StartLimitBurst"_s).toInt();
        QVERIFY2(interval > 0 && burst > 0, text.constData());
        QVERIFY(burst * keys.value(u"[Service]RestartSec"_s).toInt() < interval);
        QCOMPARE(keys.value(u"[Service]Restart"_s), u"on-failure"_s);
        // A user manager has no network-online.target.
        QVERIFY2(!text.contains("network-online"), text.constData());
    }

    void scriptEnableOfAServiceThatCannotStartFailsWithItsJournal()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        runEarlierService(world);
        // A service that says a good deal and then why it cannot run, and ends.
        const QString broken = world.root() + u"/broken-service"_s;
        writeTestFile(broken, "#!/bin/sh\n"
                              "for step in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do echo \"step $step\" >&2; done\n"
                              "echo 'Veldspar: error while loading shared libraries: libQt6Network.so.6' >&2\n"
                              "exit 127\n");
        QFile::setPermissions(broken, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        world.useServiceExecutable(broken);

        const qint64 before = QDateTime::currentSecsSinceEpoch();
        const TestWorld::ScriptRun run = world.runServiceScript(u"enable"_s);
        QCOMPARE(run.status, 1);
        const QString name = unit(u"org.kestrum.Veldspar"_s);
        // Only this start's lines are asked for: an earlier run's would mislead.
        const QString asked = QString::fromUtf8(readTestFile(world.binFolder() + u"/systemctl.d/journal-calls"_s));
        const QRegularExpressionMatch since = QRegularExpression(u"--since @(\\d+) "_s).match(asked);
        QVERIFY2(since.hasMatch(), qPrintable(asked));
        QVERIFY(since.captured(1).toLongLong() >= before);
        QVERIFY(since.captured(1).toLongLong() <= QDateTime::currentSecsSinceEpoch());
        QStringList lines = run.output.split(u'\n');
        QCOMPARE(lines.takeLast(), QString());
        QCOMPARE(lines.value(0), u"Veldspar service: systemctl --user restart %1 failed: Job for %1 failed because the "
                                 "control process exited with error code. See \"systemctl --user status %1\" and "
                                 "\"journalctl --user -xeu %1\" for details."_s.arg(name));
        QCOMPARE(lines.value(1), u"Its journal ends with:"_s);
        // The last ten lines, the reason among them.
        QStringList journal = world.journalOf(name).split(u'\n', Qt::SkipEmptyParts);
        QVERIFY2(journal.size() > 10, qPrintable(world.journalOf(name)));
        journal = journal.mid(journal.size() - 10);
        for (QString &line : journal)
            line.prepend(u"  "_s);
        QCOMPARE(lines.mid(2), journal);
        QVERIFY(journal.contains(u"  Veldspar: error while loading shared libraries: libQt6Network.so.6"_s));
        QVERIFY(journal.contains(u"  %1: Main process exited, code=exited, status=127/n/a"_s.arg(name)));

        // Nothing looks set up, nothing of the unit is left, and the earlier service still serves.
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
        QCOMPARE(world.unitAnswer(name), QByteArray());
        QVERIFY(QFile::exists(world.unitFilePath(u"org.kestrum.palisade"_s)));
        QCOMPARE(world.unitAnswer(unit(u"org.kestrum.palisade"_s)), running);
    }

    void scriptEnableWaitsUntilTheRealServiceIsReady()
    {
        TestWorld world;
        world.useRealServiceScript();
        world.writeConfig("{\"radios\": []}");
        world.useServiceExecutable(QStringLiteral(VELDSPAR_SERVICE_EXECUTABLE));
        const QString name = unit(u"org.kestrum.Veldspar"_s);
        const QString installed = world.home() + u"/.local/share/Veldspar/Veldspar"_s;

        const TestWorld::ScriptRun run = world.runServiceScript(u"enable"_s);
        QCOMPARE(run.output, QString());
        QCOMPARE(run.status, 0);
        const qint64 first = world.startedProcess(name);
        QVERIFY(first > 0);
        QCOMPARE(QFileInfo(u"/proc/%1/exe"_s.arg(first)).symLinkTarget(), installed);
        // systemctl returned once the service said it was ready, and it says so once it has read
        // its configuration.
        QVERIFY2(world.journalOf(name).contains(u"Configuration loaded: 0 of 0 radios enabled"_s),
                 qPrintable(world.journalOf(name)));

        QCOMPARE(world.runServiceScript(u"stop"_s).status, 0);
        QCOMPARE(world.startedProcess(name), 0);
        QVERIFY(world.journalOf(name).contains(u"Stopping (SIGTERM)."_s));

        QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
        const qint64 second = world.startedProcess(name);
        QVERIFY(second > 0 && second != first);
        QCOMPARE(world.runServiceScript(u"remove"_s).status, 0);
        QCOMPARE(world.startedProcess(name), 0);
        QVERIFY(!QFile::exists(world.unitFilePath(u"org.kestrum.Veldspar"_s)));
    }

    void aServiceTheStandInStartedEndsWithItsWorld()
    {
        qint64 pid = 0;
        {
            TestWorld world;
            world.useRealServiceScript();
            QCOMPARE(world.runServiceScript(u"enable"_s).status, 0);
            pid = world.startedProcess(unit(u"org.kestrum.Veldspar"_s));
            QVERIFY(pid > 0);
        }
        QVERIFY(!runs(pid));
    }

private:
    // An earlier version's service, set up under its label and running.
    static void runEarlierService(const TestWorld &world)
    {
        world.writeUnitFile(u"org.kestrum.palisade"_s);
        world.answerUnit(unit(u"org.kestrum.palisade"_s), running);
    }

    // A process that runs and has not ended (a zombie has ended).
    static bool runs(qint64 pid)
    {
        const QByteArray stat = readTestFile(u"/proc/%1/stat"_s.arg(pid));
        const qsizetype end = stat.lastIndexOf(") ");
        return end >= 0 && stat.mid(end + 2, 1) != "Z";
    }

    std::unique_ptr<WithoutFilePermissionOverride> m_ordinaryUser;
    QByteArray m_realRuntime;
    QByteArray m_realBus;
};

QTEST_MAIN(ServiceTest)
#include "tst_service.moc"
