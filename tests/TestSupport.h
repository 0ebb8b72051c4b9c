#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QProcessEnvironment>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>

#include <functional>
#include <optional>
#include <memory>

class AppDelegate;
class QAbstractButton;
class QCheckBox;
class QFileDialog;
class QLabel;
class QListView;
class QMainWindow;
class QProcess;
class ServiceButton;
class StatusLabel;

// A private world for one test: HOME, TMPDIR, XDG_RUNTIME_DIR and a bundle of its own, whose Resources/ holds
// the stand-in service executable from tests/fakes/. Nothing outside it is touched.
class TestWorld
{
public:
    TestWorld();
    ~TestWorld();

    QString root() const { return m_dir.path(); }
    QString binFolder() const; // the stand-ins for systemctl and pkexec
    QString home() const;
    QString tempDir() const;
    QString runtimeDir() const; // XDG_RUNTIME_DIR, made 0700 as a login session makes it
    // Stands for / where the app looks for its running copy: holds tmp/ (mode 1777) and, when a
    // test makes it, run/user/<uid>.
    QString systemRoot() const;
    QString bundle() const;
    QString resources() const;
    QString configPath() const;

    void writeConfig(const QByteArray &bytes) const;
    QByteArray readConfig() const; // empty when the file is missing
    bool configExists() const;

    // Scripts the stand-in's answer to "--discover address".
    void answerDiscover(const QString &address, const QByteArray &output, int status = 0, bool hold = false) const;
    // A radio description in the stand-in's answer, one JSON line after a progress line.
    void answerRadio(const QString &address, const QJsonObject &radio) const;
    void setImportResult(const QByteArray &output, int status, bool hold = false) const;
    void release() const; // lets held answers go
    void removeServiceExecutable() const;
    // Puts the real service executable at path into the bundle in place of the stand-in.
    void useServiceExecutable(const QString &path) const;

    // Each call of the stand-in, as its argument list, in order.
    QList<QStringList> calls() const;
    // The stand-in's file for a call's process id (0 for the first call), there once it runs.
    QString callPidFile(int call) const;
    QStringList discoveredAddresses() const;
    QList<QByteArray> importedFiles() const;
    // Drafts left behind in any folder the writer may use.
    QStringList leftoverTemporaryFiles() const;

    // The background service's stand-ins: systemctl (run by the app at a fixed path and by the
    // real service script through PATH), pkexec, and the service script itself.
    // The app asks systemd's user manager over a private user bus of this world, where a
    // stand-in manager reads the same unit files and flags as the systemctl stand-in.
    void answerUnit(const QString &unit, const QByteArray &answer, int status = 0) const;
    void makeSystemdUnavailable() const;
    void holdSystemctl() const;
    void failSystemctl(const QString &verb) const;
    // Makes the stand-in manager answer with wrong types: "garbage-path" or "garbage-properties".
    void garbleSystemdAnswers(const QString &how) const;
    QList<QStringList> systemctlCalls() const;
    // Each call the stand-in manager received: method, then its arguments (a list's items one by
    // one).
    QList<QStringList> systemdCalls() const;
    // Ends the world's user bus and its manager: the app finds no bus at all.
    void stopUserBus();
    // Stops the bus daemon with SIGSTOP, as a hung bus: connections are taken into its queue
    // and never answered. resumeUserBus() lets it go on (SIGCONT).
    void pauseUserBus() const;
    void resumeUserBus() const;
    // The manager leaves the bus and answers on its own socket, $XDG_RUNTIME_DIR/systemd/private,
    // only: with the bus kept, as in a session started with dbus-launch; without, as with no
    // session bus at all.
    enum class Bus { Kept, Stopped };
    void moveUserManagerToItsSocket(Bus bus);
    // Ends the processes the systemctl stand-in started for Type=notify units and left running.
    void stopStartedUnits() const;
    // What the journalctl stand-in holds for a unit.
    QString journalOf(const QString &unit) const;
    // The main process the systemctl stand-in started for a unit while it still runs, else 0.
    qint64 startedProcess(const QString &unit) const;
    // What the systemctl stand-in says of a unit now ("show"'s KEY=VALUE lines); empty when it
    // does not know the unit.
    QByteArray unitAnswer(const QString &unit) const;
    void setServiceAction(const QString &action, const QByteArray &output, int status, bool hold = false) const;
    QStringList serviceActions() const;
    void setPkexecAnswer(const QString &answer) const;
    QList<QStringList> pkexecCalls() const;
    // Puts the shipped service script in the bundle in place of its stand-in.
    void useRealServiceScript() const;
    // Runs the bundle's service script with PATH leading to the systemctl stand-in.
    struct ScriptRun
    {
        int status = -1;
        QString output;
    };
    // adjust changes the script's environment first (HOME and PATH are set as above).
    ScriptRun runServiceScript(const QString &action,
                               const std::function<void(QProcessEnvironment &)> &adjust = {}) const;
    QString unitFilePath(const QString &label) const;
    void writeUnitFile(const QString &label) const;
    QString serviceLog() const;
    // Moves the bundle to another place under root (a name with quotes, a copy's name …).
    void moveBundle(const QString &relativePath);
    // Makes the bundle at path, one the world did not make (an installed copy, say), the app's.
    void adoptBundle(const QString &path);

private:
    QString fakeControl() const;
    void startUserBus();
    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_bus;
    std::unique_ptr<QProcess> m_manager;
    std::optional<QByteArray> m_oldBusAddress;
    QString m_bundle;
    QByteArray m_oldHome;
    QByteArray m_oldTmp;
    std::optional<QByteArray> m_oldRuntime;
    std::optional<QByteArray> m_oldSystemRoot;
};

struct ShownDialog
{
    QStringList texts;     // title, detail and question as shown, in order
    bool hasCancel = false;
    bool hasInput = false;
    QString placeholder;
    QSize size;
    QString answer;        // "OK", "Cancel", "Return" or "Escape"

    // Where everything sits, in the panel's own top-down coordinates.
    QRect frame;                  // the panel itself, on screen
    QList<QRect> textFrames;      // the text labels, top to bottom
    QList<int> textHeightsNeeded; // the height each text label needs for its text at its width
    QList<bool> textsWhole;       // every line of each text lies inside its visible box
    QRect icon;                   // empty when no image is shown
    QRect okButton;
    QRect cancelButton;           // empty when there is none
    QRect inputField;             // empty when there is none
    bool inputFocused = false;    // the field had the keyboard focus when the panel appeared

    // A file chooser: its title is the only text; what it lets the user pick.
    bool fileChooser = false;
    bool choosesExistingFileOnly = false; // one existing file, no folders
    QStringList nameFilters;
    bool stayedOpen = false;              // it refused the choice and is still asking
};

// Answers the app's modal dialogs as a user would: waits for the active modal widget, records
// every text it shows, types into its input field when told to, and presses OK or Cancel.
class DialogAnswerer : public QObject
{
    Q_OBJECT

public:
    DialogAnswerer();

    // Planned answers, used in order; a dialog with no planned answer gets OK. The button is
    // "OK" or "Cancel" (clicked), or the key "Return" or "Escape" (typed into the focused
    // widget, the input field when there is one).
    void willPress(const QString &button, const QString &typed = QString());
    // For a file chooser: pick this path and press its Open button.
    void willChoose(const QString &path);

    const QList<ShownDialog> &shown() const { return m_shown; }
    QStringList titles() const;

private:
    void poll();
    void answerFileChooser(QFileDialog *chooser);
    struct Plan
    {
        QString button;
        QString typed;
    };
    QList<Plan> m_plans;
    QList<ShownDialog> m_shown;
    QTimer m_timer;
    QPointer<QWidget> m_waitingFor; // shown but not yet active
    QElapsedTimer m_waitingSince;
};

// The started application with a test's view of its controls.
class RunningApp
{
public:
    explicit RunningApp(const TestWorld &world);
    ~RunningApp();

    AppDelegate &app() const { return *m_app; }
    QMainWindow *window() const;
    StatusLabel *status() const;
    QListView *table() const;
    QLabel *detailTitle() const;
    QLabel *value(const QString &key) const;
    QLabel *announcementLine() const; // the details panel's announcement, beside the include box
    // The whole announcement, however much of it the line has room to show.
    QString announcement() const;
    QCheckBox *includeBox() const;
    QAbstractButton *removeButton() const;
    ServiceButton *serviceButton() const;
    QAbstractButton *button(const QString &title) const;

    QString statusText() const;
    int rowCount() const;
    int selectedRow() const;
    void selectRow(int row) const;
    QStringList rowTexts(int row) const; // the two lines of a row
    void click(QAbstractButton *button) const; // fails the test when the button is disabled
    // Waits until no save or probe is running and background work has finished.
    bool waitUntilIdle(int timeoutMs = 20000) const;
    // Waits until the first status check has been applied to the service row.
    bool waitForServiceStatus(int timeoutMs = 10000) const;

private:
    std::unique_ptr<AppDelegate> m_app;
};

// Runs the application's event loop after action() and returns its exit code: 0 when the app
// asked to quit, 99 when nothing ended it within ten seconds. The quit request itself is caught
// and turned into a plain exit, so that the application object stays usable for the tests that
// follow (a delivered request leaves it closing down, and every later modal panel ends at once).
int runEventLoop(const std::function<void()> &action);

// Writes a file, making its folder first; reads a whole file, or nothing when it is missing.
void writeTestFile(const QString &path, const QByteArray &bytes);
QByteArray readTestFile(const QString &path);

QJsonObject radio(const QString &address, const QString &serial, const QString &name = QString(),
                  const QString &version = QStringLiteral("3.3.32.8203"));
QByteArray configWith(const QList<QJsonObject> &radios);
QJsonObject parseObject(const QByteArray &bytes);
