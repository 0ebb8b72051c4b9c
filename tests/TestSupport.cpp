#include "TestSupport.h"

#include "app/AppDelegate.h"
#include "app/ElidingLabel.h"
#include "app/RadioTable.h"
#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "platform/Background.h"
#include "platform/Bundle.h"
#include "platform/SystemTools.h"
#include "platform/UserManager.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMainWindow>
#include <QProcess>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextEdit>
#include <QTextLayout>
#include <QThread>

#include <cmath>
#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>

void writeTestFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    file.write(bytes);
}

QByteArray readTestFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

namespace {
// The tests carry the update engine themselves; the app in them uses it instead of loading the
// bundle's library.
void useLinkedUpdateEngine()
{
    setUpdateEngineFactory(&veldsparCreateUpdateEngine);
}
Q_CONSTRUCTOR_FUNCTION(useLinkedUpdateEngine)

QString hexKey(const QString &address)
{
    const QByteArray hex = address.toUtf8().toHex();
    return hex.isEmpty() ? QStringLiteral("empty") : QString::fromLatin1(hex);
}
} // namespace

TestWorld::TestWorld() : m_oldHome(qgetenv("HOME")), m_oldTmp(qgetenv("TMPDIR"))
{
    if (qEnvironmentVariableIsSet("XDG_RUNTIME_DIR"))
        m_oldRuntime = qgetenv("XDG_RUNTIME_DIR");
    if (qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"))
        m_oldBusAddress = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    if (qEnvironmentVariableIsSet("VELDSPAR_ROOT_FOR_TESTING"))
        m_oldSystemRoot = qgetenv("VELDSPAR_ROOT_FOR_TESTING");
    QDir().mkpath(systemRoot() + QStringLiteral("/tmp"));
    ::chmod(QFile::encodeName(systemRoot() + QStringLiteral("/tmp")).constData(), 01777);
    qputenv("VELDSPAR_ROOT_FOR_TESTING", QFile::encodeName(systemRoot()));
    QDir().mkpath(home());
    QDir().mkpath(tempDir());
    QDir().mkdir(runtimeDir(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("HOME", QFile::encodeName(home()));
    qputenv("TMPDIR", QFile::encodeName(tempDir()));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir()));
    // The app finds the world's bus where a login session keeps it: $XDG_RUNTIME_DIR/bus.
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");

    m_bundle = root() + QStringLiteral("/Veldspar.app");
    QDir().mkpath(resources());
    const QString fake = resources() + QStringLiteral("/Veldspar");
    QFile::copy(QStringLiteral(VELDSPAR_FAKES_DIR "/Veldspar"), fake);
    QFile::setPermissions(fake, QFile::permissions(fake) | QFile::ExeOwner);
    QFile::copy(QStringLiteral(VELDSPAR_SOURCE_RESOURCES_DIR "/Veldspar.svg"),
                resources() + QStringLiteral("/Veldspar.svg"));
    setBundleLocationForTesting(bundle());

    QDir().mkpath(binFolder());
    for (const QString &tool : {QStringLiteral("systemctl"), QStringLiteral("journalctl"), QStringLiteral("pkexec")})
        QFile::copy(QStringLiteral(VELDSPAR_FAKES_DIR "/") + tool, binFolder() + u'/' + tool);
    QFile::link(QStringLiteral(VELDSPAR_FAKE_UNIT_RUNNER), binFolder() + QStringLiteral("/unit-runner"));
    QFile::copy(QStringLiteral(VELDSPAR_FAKES_DIR "/ManageService.command"),
                resources() + QStringLiteral("/ManageService.command"));
    setPkexecProgramForTesting(binFolder() + QStringLiteral("/pkexec"));
    startUserBus();
}

TestWorld::~TestWorld()
{
    release();
    stopStartedUnits();
    backgroundPool().waitForDone();
    QCoreApplication::sendPostedEvents();
    stopUserBus();
    setBundleLocationForTesting(QString());
    setPkexecProgramForTesting(QString());
    qputenv("HOME", m_oldHome);
    qputenv("TMPDIR", m_oldTmp);
    if (m_oldRuntime)
        qputenv("XDG_RUNTIME_DIR", *m_oldRuntime);
    else
        qunsetenv("XDG_RUNTIME_DIR");
    if (m_oldBusAddress)
        qputenv("DBUS_SESSION_BUS_ADDRESS", *m_oldBusAddress);
    else
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    if (m_oldSystemRoot)
        qputenv("VELDSPAR_ROOT_FOR_TESTING", *m_oldSystemRoot);
    else
        qunsetenv("VELDSPAR_ROOT_FOR_TESTING");
}

namespace {
// A child that ends with the test process, however that ends.
std::unique_ptr<QProcess> childOfThisTest()
{
    auto process = std::make_unique<QProcess>();
    process->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    process->setStandardInputFile(QProcess::nullDevice());
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    return process;
}

// The first line the child prints; empty when it prints none within ten seconds.
QByteArray firstLine(QProcess &process)
{
    if (!process.waitForStarted(10000))
        return {};
    QElapsedTimer waited;
    waited.start();
    while (!process.canReadLine() && waited.elapsed() < 10000 && process.state() == QProcess::Running)
        process.waitForReadyRead(100);
    return process.readLine().trimmed();
}

void endChild(std::unique_ptr<QProcess> &process)
{
    if (!process)
        return;
    process->terminate();
    if (!process->waitForFinished(5000)) {
        process->kill();
        process->waitForFinished(5000);
    }
    process.reset();
}
} // namespace

void TestWorld::startUserBus()
{
    const QString socket = runtimeDir() + QStringLiteral("/bus");
    const QString config = root() + QStringLiteral("/bus.conf");
    writeTestFile(config, "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                          " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                          "<busconfig>\n  <type>session</type>\n  <listen>unix:path="
                              + QFile::encodeName(socket)
                              + "</listen>\n  <auth>EXTERNAL</auth>\n"
                                "  <policy context=\"default\">\n    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                                "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n  </policy>\n</busconfig>\n");
    m_bus = childOfThisTest();
    m_bus->start(QStringLiteral("/usr/bin/dbus-daemon"),
                 {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"), QStringLiteral("--print-address")});
    const QByteArray address = firstLine(*m_bus);
    QVERIFY2(!address.isEmpty(), "dbus-daemon did not start");

    m_manager = childOfThisTest();
    m_manager->start(QStringLiteral(VELDSPAR_FAKE_SYSTEMD),
                     {QString::fromUtf8(address), binFolder() + QStringLiteral("/systemctl.d")});
    QCOMPARE(firstLine(*m_manager), QByteArray("ready"));
}

namespace {
// A process's state and start time from /proc; empty when it is gone.
QList<QByteArray> processStat(qint64 pid)
{
    const QByteArray stat = readTestFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const qsizetype end = stat.lastIndexOf(") ");
    return end < 0 ? QList<QByteArray>() : stat.mid(end + 2).split(' ');
}

// Whether the process is still the one whose start time was recorded, and has not ended.
bool stillRuns(qint64 pid, const QByteArray &started)
{
    const QList<QByteArray> stat = processStat(pid);
    return stat.size() > 19 && stat.at(0) != "Z" && stat.at(19) == started;
}
} // namespace

void TestWorld::stopStartedUnits() const
{
    const QDir running(binFolder() + QStringLiteral("/systemctl.d/running"));
    for (const QString &unit : running.entryList(QDir::Files)) {
        const qint64 pid = startedProcess(unit);
        if (pid == 0)
            continue;
        // The stand-in started it in a session of its own: end the whole session.
        ::kill(-pid_t(pid), SIGTERM);
        QElapsedTimer waited;
        waited.start();
        while (startedProcess(unit) == pid && waited.elapsed() < 5000)
            QThread::msleep(20);
        if (startedProcess(unit) == pid)
            ::kill(-pid_t(pid), SIGKILL);
    }
}

void TestWorld::stopUserBus()
{
    disconnectUserManager();
    endChild(m_manager);
    endChild(m_bus);
    QFile::remove(runtimeDir() + QStringLiteral("/bus"));
    QFile::remove(runtimeDir() + QStringLiteral("/systemd/private"));
}

void TestWorld::pauseUserBus() const
{
    QVERIFY(m_bus && m_bus->processId() > 0);
    QCOMPARE(::kill(pid_t(m_bus->processId()), SIGSTOP), 0);
}

void TestWorld::resumeUserBus() const
{
    if (m_bus && m_bus->processId() > 0)
        ::kill(pid_t(m_bus->processId()), SIGCONT);
}

void TestWorld::moveUserManagerToItsSocket(Bus bus)
{
    disconnectUserManager();
    endChild(m_manager);
    if (bus == Bus::Stopped) {
        endChild(m_bus);
        QFile::remove(runtimeDir() + QStringLiteral("/bus"));
    }
    m_manager = childOfThisTest();
    m_manager->start(QStringLiteral(VELDSPAR_FAKE_SYSTEMD),
                     {QStringLiteral("--private"), runtimeDir() + QStringLiteral("/systemd/private"),
                      binFolder() + QStringLiteral("/systemctl.d")});
    QCOMPARE(firstLine(*m_manager), QByteArray("ready"));
}

QString TestWorld::home() const { return root() + QStringLiteral("/home"); }
QString TestWorld::tempDir() const { return root() + QStringLiteral("/tmp"); }
QString TestWorld::runtimeDir() const { return root() + QStringLiteral("/run"); }
QString TestWorld::systemRoot() const { return root() + QStringLiteral("/fs"); } // short: a socket path has 107 bytes
QString TestWorld::bundle() const { return m_bundle; }
QString TestWorld::binFolder() const { return root() + QStringLiteral("/bin"); }
QString TestWorld::resources() const { return bundle() + QStringLiteral("/Resources"); }
QString TestWorld::configPath() const { return home() + QStringLiteral("/.local/share/Veldspar/config.json"); }
QString TestWorld::fakeControl() const { return resources() + QStringLiteral("/fake"); }

void TestWorld::writeConfig(const QByteArray &bytes) const { writeTestFile(configPath(), bytes); }
QByteArray TestWorld::readConfig() const { return readTestFile(configPath()); }
bool TestWorld::configExists() const { return QFile::exists(configPath()); }

void TestWorld::answerDiscover(const QString &address, const QByteArray &output, int status, bool hold) const
{
    const QString base = fakeControl() + QStringLiteral("/discover/") + hexKey(address);
    writeTestFile(base + QStringLiteral(".out"), output);
    writeTestFile(base + QStringLiteral(".status"), QByteArray::number(status));
    if (hold)
        writeTestFile(base + QStringLiteral(".hold"), {});
}

void TestWorld::answerRadio(const QString &address, const QJsonObject &radio) const
{
    answerDiscover(address, "Connecting to " + address.toUtf8() + "\u2026\n"
                                + QJsonDocument(radio).toJson(QJsonDocument::Compact) + '\n');
}

void TestWorld::setImportResult(const QByteArray &output, int status, bool hold) const
{
    writeTestFile(fakeControl() + QStringLiteral("/import.out"), output);
    writeTestFile(fakeControl() + QStringLiteral("/import.status"), QByteArray::number(status));
    if (hold)
        writeTestFile(fakeControl() + QStringLiteral("/import.hold"), {});
}

void TestWorld::release() const
{
    for (const QString &control : {fakeControl(), binFolder() + QStringLiteral("/systemctl.d"),
                                   resources() + QStringLiteral("/service.d")})
        if (QDir(control).exists())
            writeTestFile(control + QStringLiteral("/release"), {});
}

void TestWorld::removeServiceExecutable() const
{
    QFile::remove(resources() + QStringLiteral("/Veldspar"));
}

void TestWorld::useServiceExecutable(const QString &path) const
{
    const QString target = resources() + QStringLiteral("/Veldspar");
    QFile::remove(target);
    QVERIFY2(QFile::copy(path, target), qPrintable(path));
    QFile::setPermissions(target, QFile::permissions(path));
}

namespace {
// The argument lists a stand-in recorded, one NUL-separated file a call, in name order.
QList<QStringList> recordedCalls(const QString &folder)
{
    QList<QStringList> result;
    const QDir dir(folder);
    for (const QString &name : dir.entryList(QDir::Files, QDir::Name)) {
        QByteArray bytes = readTestFile(dir.filePath(name));
        if (bytes.endsWith('\0'))
            bytes.chop(1);
        QStringList arguments;
        for (const QByteArray &argument : bytes.split('\0'))
            arguments << QString::fromUtf8(argument);
        result << arguments;
    }
    return result;
}
} // namespace

QList<QStringList> TestWorld::calls() const
{
    return recordedCalls(fakeControl() + QStringLiteral("/calls"));
}

QString TestWorld::callPidFile(int call) const
{
    return fakeControl() + QStringLiteral("/pids/") + QStringLiteral("%1").arg(call, 4, 10, QLatin1Char('0'));
}

void TestWorld::answerUnit(const QString &unit, const QByteArray &answer, int status) const
{
    const QString base = binFolder() + QStringLiteral("/systemctl.d/units/") + unit;
    writeTestFile(base, answer);
    writeTestFile(base + QStringLiteral(".status"), QByteArray::number(status));
}

void TestWorld::makeSystemdUnavailable() const
{
    writeTestFile(binFolder() + QStringLiteral("/systemctl.d/unavailable"), {});
}

void TestWorld::holdSystemctl() const
{
    writeTestFile(binFolder() + QStringLiteral("/systemctl.d/hold"), {});
}

void TestWorld::failSystemctl(const QString &verb) const
{
    writeTestFile(binFolder() + QStringLiteral("/systemctl.d/fail-") + verb, {});
}

void TestWorld::garbleSystemdAnswers(const QString &how) const
{
    writeTestFile(binFolder() + QStringLiteral("/systemctl.d/") + how, {});
}

QList<QStringList> TestWorld::systemdCalls() const
{
    return recordedCalls(binFolder() + QStringLiteral("/systemctl.d/bus-calls"));
}

QString TestWorld::journalOf(const QString &unit) const
{
    return QString::fromUtf8(readTestFile(binFolder() + QStringLiteral("/systemctl.d/journal/") + unit));
}

qint64 TestWorld::startedProcess(const QString &unit) const
{
    const QList<QByteArray> recorded =
        readTestFile(binFolder() + QStringLiteral("/systemctl.d/running/") + unit).trimmed().split(' ');
    const qint64 pid = recorded.value(0).toLongLong();
    return recorded.size() == 2 && pid > 1 && stillRuns(pid, recorded.at(1)) ? pid : 0;
}

QByteArray TestWorld::unitAnswer(const QString &unit) const
{
    return readTestFile(binFolder() + QStringLiteral("/systemctl.d/units/") + unit);
}

QList<QStringList> TestWorld::systemctlCalls() const
{
    return recordedCalls(binFolder() + QStringLiteral("/systemctl.d/calls"));
}

void TestWorld::setServiceAction(const QString &action, const QByteArray &output, int status, bool hold) const
{
    const QString control = resources() + QStringLiteral("/service.d/");
    writeTestFile(control + action + QStringLiteral(".out"), output);
    writeTestFile(control + action + QStringLiteral(".status"), QByteArray::number(status));
    if (hold)
        writeTestFile(control + QStringLiteral("hold"), {});
}

QStringList TestWorld::serviceActions() const
{
    const QString text = QString::fromUtf8(readTestFile(resources() + QStringLiteral("/service.d/actions")));
    return text.split(u'\n', Qt::SkipEmptyParts);
}

void TestWorld::setPkexecAnswer(const QString &answer) const
{
    writeTestFile(binFolder() + QStringLiteral("/pkexec.d/answer"), answer.toUtf8());
}

QList<QStringList> TestWorld::pkexecCalls() const
{
    return recordedCalls(binFolder() + QStringLiteral("/pkexec.d/calls"));
}

void TestWorld::useRealServiceScript() const
{
    const QString script = resources() + QStringLiteral("/ManageService.command");
    QFile::remove(script);
    QVERIFY(QFile::copy(QStringLiteral(VELDSPAR_SOURCE_RESOURCES_DIR "/ManageService.command"), script));
}

TestWorld::ScriptRun TestWorld::runServiceScript(const QString &action,
                                                 const std::function<void(QProcessEnvironment &)> &adjust) const
{
    QProcess script;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), home());
    environment.insert(QStringLiteral("PATH"), binFolder() + QStringLiteral(":/usr/bin:/bin"));
    if (adjust)
        adjust(environment);
    script.setProcessEnvironment(environment);
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(QStringLiteral("/bin/bash"), {resources() + QStringLiteral("/ManageService.command"), action});
    ScriptRun run;
    if (!script.waitForFinished(30000))
        return run;
    run.status = script.exitStatus() == QProcess::NormalExit ? script.exitCode() : -1;
    run.output = QString::fromUtf8(script.readAll());
    return run;
}

QString TestWorld::unitFilePath(const QString &label) const
{
    return home() + QStringLiteral("/.config/systemd/user/") + label + QStringLiteral(".service");
}

void TestWorld::writeUnitFile(const QString &label) const
{
    writeTestFile(unitFilePath(label), "[Service]\nExecStart=/bin/true\n");
}

QString TestWorld::serviceLog() const
{
    return QString::fromUtf8(readTestFile(home() + QStringLiteral("/.local/share/Veldspar/service-action.log")));
}

void TestWorld::moveBundle(const QString &relativePath)
{
    const QString target = root() + u'/' + relativePath;
    QDir().mkpath(QFileInfo(target).path());
    QVERIFY(QDir().rename(m_bundle, target));
    m_bundle = target;
    setBundleLocationForTesting(m_bundle);
}

void TestWorld::adoptBundle(const QString &path)
{
    m_bundle = path;
    setBundleLocationForTesting(m_bundle);
}

QStringList TestWorld::discoveredAddresses() const
{
    QStringList addresses;
    for (const QStringList &call : calls())
        if (call.size() == 2 && call.first() == QStringLiteral("--discover"))
            addresses << call.at(1);
    return addresses;
}

QList<QByteArray> TestWorld::importedFiles() const
{
    QList<QByteArray> files;
    const QDir dir(fakeControl() + QStringLiteral("/imported"));
    for (const QString &name : dir.entryList(QDir::Files, QDir::Name))
        files << readTestFile(dir.filePath(name));
    return files;
}

QStringList TestWorld::leftoverTemporaryFiles() const
{
    QStringList files;
    for (const QString &folder : {tempDir(), runtimeDir() + QStringLiteral("/Veldspar"),
                                  home() + QStringLiteral("/.cache/org.kestrum.Veldspar.configure")})
        for (const QString &name : QDir(folder).entryList({QStringLiteral("Veldspar-*")}, QDir::Files))
            files << folder + u'/' + name;
    return files;
}

DialogAnswerer::DialogAnswerer()
{
    m_timer.setInterval(10);
    connect(&m_timer, &QTimer::timeout, this, &DialogAnswerer::poll);
    m_timer.start();
}

void DialogAnswerer::willChoose(const QString &path)
{
    m_plans.append({QStringLiteral("Choose"), path});
}

void DialogAnswerer::willPress(const QString &button, const QString &typed)
{
    m_plans.append({button, typed});
}

QStringList DialogAnswerer::titles() const
{
    QStringList result;
    for (const ShownDialog &dialog : m_shown)
        result << (dialog.texts.isEmpty() ? QString() : dialog.texts.first());
    return result;
}

namespace {
// Every line of the text lies inside the visible box: no line is wider than the box, and
// nothing lies below it.
bool wholeTextShown(QTextEdit *text)
{
    const QWidget *box = text->viewport();
    if (text->verticalScrollBar()->maximum() > 0 || text->horizontalScrollBar()->maximum() > 0)
        return false;
    for (QTextBlock block = text->document()->begin(); block.isValid(); block = block.next()) {
        const QTextLayout *layout = block.layout();
        const QPointF origin = layout->position();
        for (int i = 0; i < layout->lineCount(); ++i) {
            const QTextLine line = layout->lineAt(i);
            const qreal left = origin.x() + line.naturalTextRect().left();
            if (left < 0 || left + line.naturalTextWidth() > box->width() + 0.5
                || origin.y() + line.y() + line.height() > box->height() + 0.5)
                return false;
        }
    }
    return true;
}
} // namespace

void DialogAnswerer::poll()
{
    QWidget *modal = QApplication::activeModalWidget();
    if (!modal || !modal->isVisible() || modal->property("answered").toBool())
        return;
    // The window system activates a panel a moment after it shows, and which widget has the
    // keyboard is only known from then on. One that never becomes active is answered after a
    // while all the same.
    if (!modal->isActiveWindow()) {
        if (m_waitingFor != modal) {
            m_waitingFor = modal;
            m_waitingSince.start();
        }
        if (m_waitingSince.elapsed() < 2000)
            return;
    }
    modal->setProperty("answered", true);

    if (auto *chooser = qobject_cast<QFileDialog *>(modal)) {
        answerFileChooser(chooser);
        return;
    }

    ShownDialog shown;
    QList<QWidget *> views = modal->findChildren<QWidget *>(Qt::FindDirectChildrenOnly);
    std::sort(views.begin(), views.end(), [](QWidget *a, QWidget *b) { return a->y() < b->y(); });
    for (QWidget *view : views) {
        if (auto *text = qobject_cast<QTextEdit *>(view)) {
            shown.texts << text->toPlainText();
            shown.textFrames << text->geometry();
            shown.textHeightsNeeded << int(std::ceil(text->document()->size().height())) + 10;
            shown.textsWhole << wholeTextShown(text);
        } else if (auto *label = qobject_cast<QLabel *>(view); label && !label->pixmap().isNull()) {
            shown.icon = label->geometry();
        }
    }
    shown.size = modal->size();
    shown.frame = modal->geometry();
    QPushButton *cancel = nullptr;
    QPushButton *ok = nullptr;
    for (QPushButton *button : modal->findChildren<QPushButton *>()) {
        if (button->text() == QStringLiteral("Cancel"))
            cancel = button;
        if (button->text() == QStringLiteral("OK"))
            ok = button;
    }
    shown.hasCancel = cancel != nullptr;
    if (ok)
        shown.okButton = ok->geometry();
    if (cancel)
        shown.cancelButton = cancel->geometry();
    QLineEdit *field = modal->findChild<QLineEdit *>();
    shown.hasInput = field != nullptr;
    if (field) {
        shown.placeholder = field->placeholderText();
        shown.inputField = field->geometry();
        shown.inputFocused = QApplication::focusWidget() == field;
    }

    const Plan plan = m_plans.isEmpty() ? Plan{QStringLiteral("OK"), QString()} : m_plans.takeFirst();
    if (field && !plan.typed.isNull()) {
        field->setFocus();
        field->selectAll();
        QTest::keyClicks(field, plan.typed);
    }
    shown.answer = plan.button;
    m_shown.append(shown);
    if (plan.button == QStringLiteral("Return") || plan.button == QStringLiteral("Escape")) {
        QWidget *target = QApplication::focusWidget() ? QApplication::focusWidget() : modal;
        QTest::keyClick(target, plan.button == QStringLiteral("Return") ? Qt::Key_Return : Qt::Key_Escape);
        return;
    }
    QAbstractButton *press = plan.button == QStringLiteral("Cancel") ? cancel : ok;
    if (!press) {
        qWarning("The dialog has no %s button", qPrintable(plan.button));
        return;
    }
    QTest::mouseClick(press, Qt::LeftButton);
}

void DialogAnswerer::answerFileChooser(QFileDialog *chooser)
{
    ShownDialog shown;
    shown.fileChooser = true;
    shown.texts << chooser->windowTitle();
    shown.choosesExistingFileOnly = chooser->fileMode() == QFileDialog::ExistingFile;
    shown.nameFilters = chooser->nameFilters();
    shown.size = chooser->size();
    const Plan plan = m_plans.isEmpty() ? Plan{QStringLiteral("Cancel"), QString()} : m_plans.takeFirst();
    shown.answer = plan.button;
    auto *buttons = chooser->findChild<QDialogButtonBox *>();
    QPushButton *open = buttons ? buttons->button(QDialogButtonBox::Open) : nullptr;
    QPushButton *cancel = buttons ? buttons->button(QDialogButtonBox::Cancel) : nullptr;
    if (!open || !cancel) {
        qWarning("The file chooser has no Open and Cancel buttons");
        return;
    }
    if (plan.button == QStringLiteral("Choose")) {
        // Pasted into the file name field as a whole: typed key by key, the chooser would
        // wander into each folder as soon as a "/" is typed.
        auto *name = chooser->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"));
        if (!name) {
            qWarning("The file chooser has no file name field");
            return;
        }
        name->setFocus();
        name->selectAll();
        QGuiApplication::clipboard()->setText(plan.typed);
        QTest::keyClick(name, Qt::Key_V, Qt::ControlModifier);
        // The name completion list may open; it would swallow the click on Open.
        while (QWidget *popup = QApplication::activePopupWidget())
            popup->close();
    }
    QTest::mouseClick(plan.button == QStringLiteral("Choose") ? open : cancel, Qt::LeftButton);
    // A chooser that refuses the pick (a folder, say) stays open for the next planned answer.
    shown.stayedOpen = chooser->isVisible();
    if (shown.stayedOpen)
        chooser->setProperty("answered", false);
    m_shown.append(shown);
}

RunningApp::RunningApp(const TestWorld &) : m_app(std::make_unique<AppDelegate>())
{
    m_app->applicationDidFinishLaunching();
}

RunningApp::~RunningApp()
{
    // No background work may outlive the controller. (After a finished uninstall the app stays
    // busy on purpose, so waiting for it to be idle would only wait for the time-out.)
    QElapsedTimer timer;
    timer.start();
    while (backgroundPool().activeThreadCount() > 0 && timer.elapsed() < 20000)
        QTest::qWait(10);
    QCoreApplication::processEvents();
}

QMainWindow *RunningApp::window() const { return m_app->mainWindow(); }
StatusLabel *RunningApp::status() const { return window()->findChild<StatusLabel *>(QStringLiteral("status")); }
QListView *RunningApp::table() const { return window()->findChild<QListView *>(QStringLiteral("table")); }
QLabel *RunningApp::detailTitle() const { return window()->findChild<QLabel *>(QStringLiteral("detailTitle")); }
QLabel *RunningApp::announcementLine() const
{
    return window()->findChild<QLabel *>(QStringLiteral("announcement"));
}

QString RunningApp::announcement() const
{
    return static_cast<ElidingLabel *>(announcementLine())->fullText();
}

QLabel *RunningApp::value(const QString &key) const
{
    return window()->findChild<QLabel *>(QStringLiteral("value:") + key);
}
QCheckBox *RunningApp::includeBox() const { return window()->findChild<QCheckBox *>(QStringLiteral("enabledButton")); }
QAbstractButton *RunningApp::removeButton() const
{
    return window()->findChild<QAbstractButton *>(QStringLiteral("removeButton"));
}
ServiceButton *RunningApp::serviceButton() const
{
    return window()->findChild<ServiceButton *>(QStringLiteral("enableButton"));
}

QAbstractButton *RunningApp::button(const QString &title) const
{
    for (QAbstractButton *candidate : window()->findChildren<QAbstractButton *>())
        if (candidate->text() == title)
            return candidate;
    qWarning("No button titled %s", qPrintable(title));
    return nullptr;
}

QString RunningApp::statusText() const { return status()->text(); }
int RunningApp::rowCount() const { return table()->model()->rowCount(); }

int RunningApp::selectedRow() const
{
    const QModelIndexList rows = table()->selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

void RunningApp::selectRow(int row) const
{
    if (row < 0) {
        table()->selectionModel()->clearSelection();
        return;
    }
    const QModelIndex index = table()->model()->index(row, 0);
    table()->scrollTo(index);
    QTest::mouseClick(table()->viewport(), Qt::LeftButton, {}, table()->visualRect(index).center());
}

QStringList RunningApp::rowTexts(int row) const
{
    const QModelIndex index = table()->model()->index(row, 0);
    return {index.data(Qt::DisplayRole).toString(), index.data(RadioListModel::SubtitleRole).toString()};
}

void RunningApp::click(QAbstractButton *button) const
{
    QVERIFY(button);
    // A click on a disabled button does nothing; a test that makes one has lost a race.
    QVERIFY2(button->isEnabled(), qPrintable(button->text()));
    QTest::mouseClick(button, Qt::LeftButton);
}

bool RunningApp::waitForServiceStatus(int timeoutMs) const
{
    return QTest::qWaitFor([this] { return serviceButton()->text() != QStringLiteral("Checking\u2026"); }, timeoutMs);
}

bool RunningApp::waitUntilIdle(int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (!m_app->isBusy() && backgroundPool().activeThreadCount() == 0) {
            QCoreApplication::processEvents();
            if (!m_app->isBusy())
                return true;
        }
        QTest::qWait(10);
    }
    return false;
}

int runEventLoop(const std::function<void()> &action)
{
    struct QuitCatcher : QObject
    {
        bool eventFilter(QObject *watched, QEvent *event) override
        {
            if (watched != qApp || event->type() != QEvent::Quit)
                return false;
            QCoreApplication::exit(0);
            return true;
        }
    } catcher;
    qApp->installEventFilter(&catcher);
    QTimer guard;
    guard.setSingleShot(true);
    QObject::connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(99); });
    guard.start(10000);
    QTimer::singleShot(0, action);
    const int code = QApplication::exec();
    guard.stop();
    qApp->removeEventFilter(&catcher);
    return code;
}


QJsonObject radio(const QString &address, const QString &serial, const QString &name, const QString &version)
{
    QJsonObject entry{{QStringLiteral("ipAddress"), address}, {QStringLiteral("enabled"), true}};
    if (!serial.isNull())
        entry.insert(QStringLiteral("serialNumber"), serial);
    if (!name.isNull())
        entry.insert(QStringLiteral("name"), name);
    if (!version.isNull())
        entry.insert(QStringLiteral("version"), version);
    return entry;
}

QByteArray configWith(const QList<QJsonObject> &radios)
{
    QJsonArray list;
    for (const QJsonObject &entry : radios)
        list.append(entry);
    return QJsonDocument(QJsonObject{{QStringLiteral("broadcastIntervalMs"), 3000}, {QStringLiteral("radios"), list}})
        .toJson(QJsonDocument::Indented);
}

QJsonObject parseObject(const QByteArray &bytes)
{
    return QJsonDocument::fromJson(bytes).object();
}
