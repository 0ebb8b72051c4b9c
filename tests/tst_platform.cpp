#include "TestSupport.h"

#include "platform/Background.h"
#include "platform/Bundle.h"
#include "platform/BusProbe.h"
#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/Json.h"
#include "platform/Paths.h"
#include "platform/PrivateFolder.h"
#include "platform/Process.h"
#include "platform/SingleInstance.h"
#include "platform/UserManager.h"

#include <QDir>
#include <QFile>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QDBusMessage>
#include <QJsonArray>
#include <QLocalSocket>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <latch>
#include <thread>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <poll.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

namespace {
using Claim = SingleInstance::Claim;

// What a copy killed while it listened leaves behind: a socket file nobody accepts on.
void leaveStaleSocket(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    QVERIFY(fd >= 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    QVERIFY(size_t(name.size()) < sizeof(address.sun_path));
    std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
    QCOMPARE(::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    ::close(fd);
    QVERIFY(QFileInfo::exists(path));
}

// A later start's claim, made on another thread while this one's event loop serves the first.
Claim claimFromAnotherThread(const QString &name)
{
    auto claim = std::async(std::launch::async, [name] { return SingleInstance(name).claim(10000); });
    QElapsedTimer waited;
    waited.start();
    while (claim.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready && waited.elapsed() < 20000)
        QTest::qWait(10);
    return claim.get(); // the claim ends on its own within its ten seconds
}

// A client socket connected to the name; -1 when it cannot be.
int connectTo(const QString &name)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(name);
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        return fd;
    if (fd >= 0)
        ::close(fd);
    return -1;
}

// Whether the other end closed the connection within the time.
bool closedByPeer(int fd, int withinMs)
{
    pollfd watched = {fd, POLLIN, 0};
    if (::poll(&watched, 1, withinMs) <= 0)
        return false;
    char byte;
    return ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

// CPU time this thread has used, in milliseconds.
qint64 threadCpuMs()
{
    timespec used = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return qint64(used.tv_sec) * 1000 + used.tv_nsec / 1000000;
}
} // namespace

class PlatformTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void userBusIsTheSessionAddressElseTheRuntimeFolders()
    {
        TestWorld world; // its own XDG_RUNTIME_DIR, no DBUS_SESSION_BUS_ADDRESS
        QCOMPARE(userBusAddress(), QStringLiteral("unix:path=") + world.runtimeDir() + QStringLiteral("/bus"));
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/user/1000/elsewhere");
        QCOMPARE(userBusAddress(), QStringLiteral("unix:path=/run/user/1000/elsewhere"));
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        qunsetenv("XDG_RUNTIME_DIR");
        QCOMPARE(userBusAddress(), QString());
    }

    void pathExistsForAnythingThereDanglingLinksIncluded()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString file = dir.filePath(QStringLiteral("file"));
        writeTestFile(file, "x");
        QVERIFY(QFile::link(file, dir.filePath(QStringLiteral("to-file"))));
        QVERIFY(QFile::link(dir.filePath(QStringLiteral("nothing")), dir.filePath(QStringLiteral("dangling"))));
        QVERIFY(pathExists(file));
        QVERIFY(pathExists(dir.path()));
        QVERIFY(pathExists(dir.filePath(QStringLiteral("to-file"))));
        QVERIFY(pathExists(dir.filePath(QStringLiteral("dangling"))));
        QVERIFY(!pathExists(dir.filePath(QStringLiteral("nothing"))));
        QVERIFY(!pathExists(file + QStringLiteral("/below-a-file")));
        QVERIFY(!pathExists(QString()));
    }

    // Only a plain socket path that leads nowhere counts as no bus; any other address is tried.
    void userManagerIsMissingOnlyWhenNeitherSocketIsThere_data()
    {
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<bool>("missing");
        const QByteArray here = QFile::encodeName(QDir::tempPath());
        QTest::newRow("no address") << QByteArray() << true;
        QTest::newRow("path to nothing") << QByteArray("unix:path=/nonexistent/veldspar-bus") << true;
        QTest::newRow("path to something") << "unix:path=" + here << false;
        QTest::newRow("path to nothing, with guid") << QByteArray("unix:path=/nonexistent/bus,guid=0123456789abcdef") << true;
        QTest::newRow("guid first") << "unix:guid=0123456789abcdef,path=" + here << false;
        QTest::newRow("escaped path to something") << "unix:path=" + QByteArray(here).replace('/', "%2f") << false;
        QTest::newRow("abstract socket") << QByteArray("unix:abstract=/tmp/dbus-XYZ") << false;
        QTest::newRow("tcp") << QByteArray("tcp:host=localhost,port=5555") << false;
        QTest::newRow("two addresses") << QByteArray("unix:path=/nonexistent/a;unix:path=/nonexistent/b") << false;
    }

    void userManagerIsMissingOnlyWhenNeitherSocketIsThere()
    {
        QFETCH(QByteArray, address);
        QFETCH(bool, missing);
        TestWorld world;
        world.stopUserBus(); // nothing at the runtime folder's bus path
        if (address.isEmpty())
            qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        else
            qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        QCOMPARE(userManagerIsMissing(), missing);
        // Without a runtime folder there is no manager's socket to look for: the bus decides.
        qunsetenv("XDG_RUNTIME_DIR");
        QCOMPARE(userManagerIsMissing(), missing);
        // With something at the manager's own socket, the manager is there to be asked.
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(world.runtimeDir()));
        QDir().mkpath(world.runtimeDir() + QStringLiteral("/systemd"));
        writeTestFile(world.runtimeDir() + QStringLiteral("/systemd/private"), {});
        QVERIFY(!userManagerIsMissing());
    }

    void busProbeTellsAnAnsweringBusFromAHungOne()
    {
        TestWorld world;
        const QString bus = userBusAddress();
        QCOMPARE(probeBus(bus, BusKind::MessageBus, QDeadlineTimer(5000)), BusAnswer::Answered);
        QCOMPARE(probeBus(bus, BusKind::Peer, QDeadlineTimer(5000)), BusAnswer::Answered);
        // The first address that takes the connection decides.
        QCOMPARE(probeBus(QStringLiteral("unix:path=") + world.root() + QStringLiteral("/nothing;") + bus, BusKind::MessageBus, QDeadlineTimer(5000)),
                 BusAnswer::Answered);
        QCOMPARE(probeBus(QStringLiteral("tcp:host=localhost,port=1"), BusKind::MessageBus, QDeadlineTimer(5000)), BusAnswer::Unknown);

        world.pauseUserBus();
        const auto resume = qScopeGuard([&world] { world.resumeUserBus(); });
        QDeadlineTimer deadline(300);
        QCOMPARE(probeBus(bus, BusKind::MessageBus, deadline), BusAnswer::Silent);
        QVERIFY(deadline.hasExpired());
    }

    void busProbeCountsABusThatAuthenticatesButNeverAnswersAsSilent()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("bus"));
        const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        QVERIFY(listener >= 0);
        const auto closeListener = qScopeGuard([listener] { ::close(listener); });
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray name = QFile::encodeName(path);
        std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
        QCOMPARE(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        QCOMPARE(::listen(listener, 4), 0);
        // Accepts the probe, says OK to its authentication and then nothing more.
        std::thread daemon([listener] {
            const int client = ::accept(listener, nullptr, nullptr);
            if (client < 0)
                return;
            char buffer[256];
            ::recv(client, buffer, sizeof(buffer), 0);
            const char ok[] = "OK 0123456789abcdef0123456789abcdef\r\n";
            ::send(client, ok, sizeof(ok) - 1, MSG_NOSIGNAL);
            QThread::msleep(1500);
            ::close(client);
        });
        QDeadlineTimer deadline(500);
        QCOMPARE(probeBus(QStringLiteral("unix:path=") + path, BusKind::MessageBus, deadline), BusAnswer::Silent);
        QVERIFY(deadline.hasExpired());
        daemon.join();
    }

    void userManagerSocketIsInTheRuntimeFolder()
    {
        TestWorld world;
        QCOMPARE(userManagerSocketAddress(), QStringLiteral("unix:path=") + world.runtimeDir() + QStringLiteral("/systemd/private"));
        qunsetenv("XDG_RUNTIME_DIR");
        QCOMPARE(userManagerSocketAddress(), QString());
    }

    void userManagerKeepsOneConnectionAndMakesItAgainWhenGone()
    {
        TestWorld world;
        QDBusConnection first = userManager();
        QVERIFY(first.isConnected());
        quint64 firstMade = 0;
        currentUserManager(&firstMade);
        QDBusConnection again = userManager();
        quint64 made = 0;
        currentUserManager(&made);
        QCOMPARE(made, firstMade);
        QCOMPARE(again.baseService(), first.baseService());

        quint64 handedOut = 0;
        userManager(&handedOut);
        QCOMPARE(handedOut, firstMade); // the generation of the connection returned

        disconnectUserManager();
        QDBusConnection remade = userManager(&handedOut);
        currentUserManager(&made);
        QCOMPARE(handedOut, made);
        QVERIFY(made != firstMade);
        QVERIFY(remade.isConnected());
        QVERIFY(remade.baseService() != first.baseService());

        // Once the bus is gone the connection notices, and no new one can be made.
        world.stopUserBus();
        const quint64 lastMade = made;
        QVERIFY(!userManager().isConnected());
        currentUserManager(&made);
        QCOMPARE(made, lastMade);
        QVERIFY(!currentUserManager().isConnected());
    }

    // A bus the manager is not on (a dbus-launch session) is left for the manager's own socket,
    // a peer connection with no bus daemon behind it; without a bus, the socket is all there is.
    void userManagerIsReachedOnItsOwnSocketWhenNotOnTheBus_data()
    {
        QTest::addColumn<bool>("busKept");
        QTest::newRow("bus without the manager") << true;
        QTest::newRow("no bus") << false;
    }

    void userManagerIsReachedOnItsOwnSocketWhenNotOnTheBus()
    {
        QFETCH(bool, busKept);
        TestWorld world;
        QVERIFY(!userManager().baseService().isEmpty()); // on the bus, a bus name of its own
        world.moveUserManagerToItsSocket(busKept ? TestWorld::Bus::Kept : TestWorld::Bus::Stopped);
        quint64 generation = 0;
        QDBusConnection manager = userManager(&generation);
        QVERIFY(manager.isConnected());
        QVERIFY(manager.baseService().isEmpty()); // a peer: no bus gave it a name
        quint64 current = 0;
        QVERIFY(currentUserManager(&current).isConnected());
        QCOMPARE(current, generation);
        const QDBusMessage reply = manager.call(
            QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.systemd1"), QStringLiteral("/org/freedesktop/systemd1"),
                                           QStringLiteral("org.freedesktop.systemd1.Manager"), QStringLiteral("Subscribe")),
            QDBus::Block, userManagerCallTimeoutMs);
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
        // Once the manager goes, so does the connection, and nothing is left to reach.
        world.stopUserBus();
        QTRY_VERIFY_WITH_TIMEOUT(!currentUserManager().isConnected(), 5000);
        QVERIFY(!userManager().isConnected());
    }

    void messageErrorRendersGenericSentence()
    {
        const Error error = Error::withMessage(QStringLiteral("Invalid configuration"));
        QCOMPARE(error.code(), 1);
        QCOMPARE(error.localizedDescription(),
                 QStringLiteral("The operation couldn\u2019t be completed. (Invalid configuration error 1.)"));
        QCOMPARE(error.description(),
                 QStringLiteral("Error Domain=Invalid configuration Code=1 \"The operation couldn\u2019t be completed. "
                                "(Invalid configuration error 1.)\""));
    }

    void errorWithDescriptionShowsItAndItsUserInfo()
    {
        const Error error(QStringLiteral("QFile"), 5, {{Error::descriptionKey, QStringLiteral("/x: Permission denied")}});
        QCOMPARE(error.localizedDescription(), QStringLiteral("/x: Permission denied"));
        QCOMPARE(error.description(), QStringLiteral("Error Domain=QFile Code=5 \"/x: Permission denied\" "
                                                     "UserInfo={NSLocalizedDescription=/x: Permission denied}"));
    }

    void writtenJsonIsIndentedWithSortedKeys()
    {
        const QJsonObject document{{QStringLiteral("radios"), QJsonArray{QJsonObject{{QStringLiteral("b"), 1},
                                                                                    {QStringLiteral("a"), true}}}},
                                   {QStringLiteral("broadcastIntervalMs"), 3000},
                                   {QStringLiteral("Zed"), QStringLiteral("x")}};
        QCOMPARE(writeJson(document), QByteArray("{\n"
                                                 "    \"Zed\": \"x\",\n"
                                                 "    \"broadcastIntervalMs\": 3000,\n"
                                                 "    \"radios\": [\n"
                                                 "        {\n"
                                                 "            \"a\": true,\n"
                                                 "            \"b\": 1\n"
                                                 "        }\n"
                                                 "    ]\n"
                                                 "}\n"));
    }

    void readingRejectsFragmentsAndBrokenText_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("bare number") << QByteArray("5");
        QTest::newRow("bare string") << QByteArray("\"radios\"");
        QTest::newRow("truncated object") << QByteArray("{\"radios\": [");
        QTest::newRow("invalid UTF-8 in a string") << QByteArray("{\"name\": \"\xff\"}");
        QTest::newRow("invalid UTF-8 after a backslash") << QByteArray("{\"name\": \"\\\xff\"}");
        QTest::newRow("unpaired surrogate in a value") << QByteArray("{\"name\": \"a\\ud800\"}");
        QTest::newRow("unpaired surrogate in a key") << QByteArray("{\"serial\\udc00Number\": \"x\"}");
        QTest::newRow("unpaired surrogate in an array") << QByteArray("[\"\\udfff\\ud800\"]");
        QTest::newRow("empty") << QByteArray();
    }

    void readingRejectsFragmentsAndBrokenText()
    {
        QFETCH(QByteArray, text);
        try {
            readJson(text);
            QFAIL("accepted");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
            QVERIFY(error.localizedDescription().startsWith(QStringLiteral("JSON text is not valid: ")));
        }
    }

    void readingAcceptsObjectsAndArrays()
    {
        QVERIFY(readJson("{\"a\": 1}").isObject());
        QVERIFY(readJson(" [1, 2] ").isArray());
        QCOMPARE(readJson("{\"a\": \"\\ud83d\\ude00\"}").object().value(QStringLiteral("a")).toString(),
                 QString::fromUtf8("\xf0\x9f\x98\x80")); // a pair is one character
    }

    void processOutputMergesBothStreamsInOrder()
    {
        const ProcessResult result = runProcess(QStringLiteral("/bin/sh"),
                                                {QStringLiteral("-c"), QStringLiteral("echo one; echo two >&2; echo three; exit 3")});
        QCOMPARE(result.output, QByteArray("one\ntwo\nthree\n"));
        QCOMPARE(result.exitCode, 3);
        QVERIFY(!result.succeeded());
    }

    void processOutputKeepsInvalidUtf8AsReplacementCharacters()
    {
        const ProcessResult result = runProcess(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("printf 'a\\377b'")});
        QVERIFY(result.succeeded());
        QCOMPARE(result.text(), QStringLiteral("a\uFFFDb"));
    }

    void processThatPrintsMuchDoesNotBlock()
    {
        const ProcessResult result = runProcess(QStringLiteral("/bin/sh"),
                                                {QStringLiteral("-c"), QStringLiteral("head -c 1000000 /dev/zero")});
        QVERIFY(result.succeeded());
        QCOMPARE(result.output.size(), 1000000);
    }

    void processKilledBySignalIsAFailure()
    {
        const ProcessResult result = runProcess(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("kill -9 $$")});
        QVERIFY(result.crashed);
        QVERIFY(!result.succeeded());
    }

    void programThatCannotStartThrowsTheLaunchError()
    {
        QTemporaryDir dir;
        const QString missing = dir.filePath(QStringLiteral("no such program"));
        try {
            runProcess(missing, {});
            QFAIL("started");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("QProcess"));
            QCOMPARE(error.code(), 0); // QProcess::FailedToStart
            QVERIFY2(error.localizedDescription().startsWith(missing + QStringLiteral(": ")),
                     qPrintable(error.localizedDescription()));
        }
    }

    void argumentsReachTheProgramUnchanged()
    {
        const QString odd = QStringLiteral(" two  spaces, 'quote' \"double\" \\ $HOME ;");
        const ProcessResult result = runProcess(QStringLiteral("/usr/bin/printf"), {QStringLiteral("%s"), odd});
        QCOMPARE(result.text(), odd);
    }

    void bundleLocationIsCleanedAndHoldsResources()
    {
        QTemporaryDir dir;
        QDir().mkpath(dir.filePath(QStringLiteral("Veldspar.app/Resources")));
        setBundleLocationForTesting(dir.path() + QStringLiteral("/x/../Veldspar.app/./"));
        QCOMPARE(bundleLocation(), dir.path() + QStringLiteral("/Veldspar.app"));
        QCOMPARE(resourcePath(QStringLiteral("Veldspar")), dir.path() + QStringLiteral("/Veldspar.app/Resources/Veldspar"));
        setBundleLocationForTesting(QString());
        QCOMPARE(bundleLocation(), QCoreApplication::applicationDirPath());
    }

    void privateFileIsNewAndForItsOwnerOnly()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("draft.json"));
        writeNewPrivateFile(path, "{}");
        QCOMPARE(readTestFile(path), QByteArray("{}"));
        QCOMPARE(QFileInfo(path).permissions() & ~(QFile::ReadUser | QFile::WriteUser),
                 QFile::ReadOwner | QFile::WriteOwner);

        // A name someone prepared, as a link to a file they would read, is refused as it is.
        const QString target = dir.filePath(QStringLiteral("target"));
        writeTestFile(target, "theirs");
        const QString link = dir.filePath(QStringLiteral("link.json"));
        QVERIFY(QFile::link(target, link));
        QVERIFY_THROWS_EXCEPTION(Error, writeNewPrivateFile(link, "mine"));
        QCOMPARE(readTestFile(target), QByteArray("theirs"));
    }

    void privateFolderRefusesWhatItCannotTrust()
    {
        QTemporaryDir dir;
        const QString made = dir.filePath(QStringLiteral("a/b/private"));
        makePrivateFolder(made);
        QCOMPARE(QFileInfo(made).permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        const QString elsewhere = dir.filePath(QStringLiteral("elsewhere"));
        QVERIFY(QDir().mkdir(elsewhere));
        const QString link = dir.filePath(QStringLiteral("link"));
        QVERIFY(QFile::link(elsewhere, link));
        QVERIFY_THROWS_EXCEPTION(Error, makePrivateFolder(link));
        writeTestFile(dir.filePath(QStringLiteral("file")), "x");
        QVERIFY_THROWS_EXCEPTION(Error, makePrivateFolder(dir.filePath(QStringLiteral("file"))));
        QVERIFY_THROWS_EXCEPTION(Error, makePrivateFolder(QStringLiteral("relative/folder")));
        QVERIFY_THROWS_EXCEPTION(Error, makePrivateFolder(QStringLiteral("/")));
    }

    // The app as a user starts it: through a link to its bundle, by a relative path, through
    // PATH, from a working folder reached through a link. The location keeps the links as
    // given, so that the uninstall acts on what the user named, never on what it points to.
    void bundleLocationIsThePathAsStarted_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("expected");
        const QString link = QStringLiteral("Applications/Veldspar.app");
        const QString real = QStringLiteral("store/Veldspar.app");
        const auto row = [](const char *name, const char *command, const QString &expected) {
            QTest::newRow(name) << QString::fromUtf8(command) << expected;
        };
        row("absolute path through a link", "exec \"$ROOT/Applications/Veldspar.app/Veldspar\"", link);
        row("relative path through a link", "exec Applications/Veldspar.app/Veldspar", link);
        row("path with dot-dot", "cd store && exec ../Applications/./Veldspar.app/Veldspar", link);
        row("found on PATH", "PATH=\"$ROOT/Applications/Veldspar.app:$PATH\" exec Veldspar", link);
        row("relative PATH entry", "cd Applications && PATH=\"Veldspar.app:$PATH\" exec Veldspar", link);
        row("working folder through a link", "cd Applications/Veldspar.app && exec ./Veldspar", link);
        row("link to the executable", "exec \"$ROOT/bin/veldspar\"", link);
        row("real bundle", "exec store/Veldspar.app/Veldspar", real);
        // A name that does not lead to the running program is not believed.
        row("misleading program name", "exec -a \"$ROOT/Applications/Other.app/Veldspar\" store/Veldspar.app/Veldspar",
            real);
    }

    void bundleLocationIsThePathAsStarted()
    {
        QFETCH(QString, command);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        const QString root = QDir(dir.path()).canonicalPath();
        const QString real = root + QStringLiteral("/store/Veldspar.app");
        QVERIFY(QDir().mkpath(real + QStringLiteral("/Resources")));
        QVERIFY(QDir().mkpath(root + QStringLiteral("/Applications/Other.app")));
        QVERIFY(QFile::copy(QStringLiteral(VELDSPAR_BUNDLE_LOCATION_PROBE), real + QStringLiteral("/Veldspar")));
        QVERIFY(QFile::link(QStringLiteral("../store/Veldspar.app"), root + QStringLiteral("/Applications/Veldspar.app")));
        QVERIFY(QDir().mkpath(root + QStringLiteral("/bin")));
        QVERIFY(QFile::link(QStringLiteral("../Applications/Veldspar.app/Veldspar"), root + QStringLiteral("/bin/veldspar")));

        QProcess shell;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ROOT"), root);
        environment.insert(QStringLiteral("PWD"), root);
        environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
        shell.setProcessEnvironment(environment);
        shell.setWorkingDirectory(root);
        shell.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), command});
        QVERIFY(shell.waitForFinished(30000));
        QCOMPARE(shell.exitCode(), 0);
        QCOMPARE(QFile::decodeName(shell.readAllStandardOutput()), root + u'/' + expected);
    }

    void firstStartListensAndASecondAsksItToComeForward()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        SingleInstance first(name);
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), Claim::Primary);
        QVERIFY(QFileInfo::exists(name));
        QCOMPARE(asked.count(), 0);

        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 1);
        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 2);
    }

    void socketLeftByACrashedCopyIsTakenOver()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        leaveStaleSocket(name);
        SingleInstance first(name);
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), Claim::Primary);
        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 1);
    }

    void startsAtOnceYieldOnePrimary()
    {
        // Several rounds of four starts, each round from a stale socket that every start finds
        // and wants to take over.
        constexpr int starts = 4;
        for (int round = 0; round < 10; ++round) {
            QTemporaryDir dir;
            const QString name = dir.filePath(QStringLiteral("instance.socket"));
            leaveStaleSocket(name);
            std::latch start(starts);
            std::atomic<int> claimed = 0;
            const auto claimAtOnce = [&] {
                SingleInstance instance(name);
                start.arrive_and_wait();
                const Claim result = instance.claim(10000);
                ++claimed;
                // Whichever won serves the others until all have their answer.
                QEventLoop loop;
                while (claimed < starts) {
                    loop.processEvents(QEventLoop::AllEvents);
                    QThread::msleep(1);
                }
                return result;
            };
            // QThreads, for the winner's socket needs an event dispatcher of its thread.
            QList<Claim> results(starts, Claim::RunningCopyBusy);
            std::vector<std::unique_ptr<QThread>> threads;
            for (int i = 0; i < starts; ++i)
                threads.emplace_back(QThread::create([&results, &claimAtOnce, i] { results[i] = claimAtOnce(); }));
            for (const auto &thread : threads)
                thread->start();
            for (const auto &thread : threads)
                QVERIFY(thread->wait(QDeadlineTimer(30000)));
            QCOMPARE(results.count(Claim::Primary), 1);
            QCOMPARE(results.count(Claim::RaisedRunningCopy), starts - 1);
        }
    }

    void aLockFileLeftBehindDoesNotHoldAStartBack()
    {
        // What a crashed copy, or an older one, left beside the socket: only a held lock counts.
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        leaveStaleSocket(name);
        QFile left(name + QStringLiteral(".lock"));
        QVERIFY(left.open(QIODevice::WriteOnly));
        left.write("12345\nVeldspar\nsomewhere\n");
        left.close();

        SingleInstance first(name);
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QElapsedTimer took;
        took.start();
        QCOMPARE(first.claim(10000), Claim::Primary);
        QVERIFY2(took.elapsed() < 5000, "a lock nobody holds was waited for");
        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 1);
    }

    void aLockHeldTooLongIsGivenUpOnWithAWord()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        const QString lockPath = name + QStringLiteral(".lock");
        const int holder = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        QVERIFY(holder >= 0);
        QCOMPARE(::flock(holder, LOCK_EX | LOCK_NB), 0);

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Cannot tell whether Veldspar already runs \\(.*instance\\.socket\\.lock: another start holds it\\); starting anyway\\.$")));
        QElapsedTimer took;
        took.start();
        QCOMPARE(SingleInstance(name).claim(300), Claim::Primary);
        QVERIFY(took.elapsed() >= 300);
        QVERIFY2(took.elapsed() < 5000, "the wait for the lock overran its bound");
        ::close(holder);

        // Once let go, the lock is had at once.
        SingleInstance later(name);
        QCOMPARE(later.claim(300), Claim::Primary);
        QVERIFY(QFileInfo::exists(name));
    }

    void anUnusableLockFileIsReportedAndStartedPast()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        // Something that is not a file of ours where the lock goes: a link is not followed.
        QVERIFY(QFile::link(dir.filePath(QStringLiteral("elsewhere")), name + QStringLiteral(".lock")));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Cannot tell whether Veldspar already runs \\(.*instance\\.socket\\.lock: .+\\); starting anyway\\.$")));
        QCOMPARE(SingleInstance(name).claim(300), Claim::Primary);
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("elsewhere"))));
    }

    void anythingButTheRequestIsNotObeyed()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        SingleInstance first(name);
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), Claim::Primary);

        // A long line without an end is cut off, not collected.
        QLocalSocket stranger;
        stranger.connectToServer(name);
        QVERIFY(stranger.waitForConnected(5000));
        stranger.write(QByteArray(1 << 20, 'x'));
        QTRY_COMPARE_WITH_TIMEOUT(stranger.state(), QLocalSocket::UnconnectedState, 10000);
        QCOMPARE(asked.count(), 0);

        // The copy still answers the next start.
        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 1);
    }

    void aListenerOutOfDescriptorsRestsAndServesAgain()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        SingleInstance first(name);
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), Claim::Primary);

        // Every descriptor in use (the limit lowered to what is open), then starts knock.
        rlimit limit = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<int> clients;
        for (int i = 0; i < 4; ++i)
            clients.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        std::vector<int> filler;
        const auto giveBack = qScopeGuard([&] {
            for (const int fd : filler)
                ::close(fd);
            ::setrlimit(RLIMIT_NOFILE, &limit);
            for (const int fd : clients)
                ::close(fd);
        });
        rlimit lowered = limit;
        lowered.rlim_cur = rlim_t(clients.back() + 64);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
        for (int fd = ::dup(clients.back()); fd >= 0; fd = ::dup(clients.back()))
            filler.push_back(fd);
        QCOMPARE(errno, EMFILE);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray path = QFile::encodeName(name);
        std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
        for (const int fd : clients)
            QCOMPARE(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);

        // Turning over and over, accept would keep this thread busy most of the second.
        const qint64 before = threadCpuMs();
        QTest::qWait(1000);
        const qint64 used = threadCpuMs() - before;
        QVERIFY2(used < 300, qPrintable(QStringLiteral("%1 ms of CPU in one second").arg(used)));

        // With descriptors free again, the copy serves the next start.
        for (const int fd : filler)
            ::close(fd);
        filler.clear();
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        for (const int fd : clients)
            ::close(fd);
        clients.clear();
        QCOMPARE(claimFromAnotherThread(name), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 1);
    }

    void aListenerServesAFewConnectionsAtOnceAndClosesTheRest()
    {
        QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("instance.socket"));
        SingleInstance first(name);
        QCOMPARE(first.claim(), Claim::Primary);

        // Connections that say nothing, each held for the request's whole wait.
        std::vector<int> clients;
        const auto closeClients = qScopeGuard([&clients] {
            for (const int fd : clients)
                ::close(fd);
        });
        for (int i = 0; i < 12; ++i) {
            clients.push_back(connectTo(name));
            QVERIFY(clients.back() >= 0);
            QTest::qWait(20); // taken in turn
        }
        QTest::qWait(200);
        int closed = 0;
        for (const int fd : clients)
            closed += closedByPeer(fd, 0) ? 1 : 0;
        QCOMPARE(closed, 4);
        for (int i = 0; i < 8; ++i)
            QVERIFY(!closedByPeer(clients.at(size_t(i)), 0));
    }

    void everyStartOfThisUserMeetsInOnePlace_data()
    {
        QTest::addColumn<bool>("runtimeFolder");
        QTest::newRow("in /run/user/<uid>") << true;
        QTest::newRow("in its own folder in /tmp") << false;
    }

    void everyStartOfThisUserMeetsInOnePlace()
    {
        QFETCH(bool, runtimeFolder);
        TestWorld world;
        const QString userRuntime = world.systemRoot() + QStringLiteral("/run/user/%1").arg(::geteuid());
        if (runtimeFolder)
            QVERIFY(QDir().mkpath(userRuntime) && QFile::setPermissions(userRuntime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        const QString folder = runtimeFolder ? userRuntime
                                             : world.systemRoot() + QStringLiteral("/tmp/org.kestrum.Veldspar.configure-%1").arg(::geteuid());
        SingleInstance first;
        QSignalSpy asked(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), Claim::Primary);
        QVERIFY(QFileInfo::exists(folder + QStringLiteral("/org.kestrum.Veldspar.configure.socket")));
        struct stat info;
        QCOMPARE(::lstat(QFile::encodeName(folder).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0700));

        // A start from a terminal without the session's runtime folder finds the same copy.
        QCOMPARE(claimFromAnotherThread(SingleInstance::defaultServerName()), Claim::RaisedRunningCopy);
        qunsetenv("XDG_RUNTIME_DIR");
        QCOMPARE(claimFromAnotherThread(SingleInstance::defaultServerName()), Claim::RaisedRunningCopy);
        QCOMPARE(asked.count(), 2);
    }

    void aFolderThisUserDidNotMakeAloneIsNotTrusted_data()
    {
        QTest::addColumn<QString>("made");
        QTest::addColumn<QString>("why");
        QTest::newRow("another account's") << QStringLiteral("nobody's") << QStringLiteral("it belongs to another account");
        QTest::newRow("open to everyone") << QStringLiteral("0777") << QStringLiteral("other accounts may enter it");
        QTest::newRow("a link") << QStringLiteral("link") << QStringLiteral("it is not a folder");
    }

    void aFolderThisUserDidNotMakeAloneIsNotTrusted()
    {
        QFETCH(QString, made);
        QFETCH(QString, why);
        TestWorld world;
        // Made first by someone else, with a lock inside that they hold: trusted, it would hold
        // every start back until the wait for the lock ran out.
        const QString folder = world.systemRoot() + QStringLiteral("/tmp/org.kestrum.Veldspar.configure-%1").arg(::geteuid());
        const QString real = made == QStringLiteral("link") ? world.root() + QStringLiteral("/elsewhere") : folder;
        QVERIFY(QDir().mkdir(real));
        if (made == QStringLiteral("link"))
            QVERIFY(QFile::link(real, folder));
        const QString lockPath = real + QStringLiteral("/org.kestrum.Veldspar.configure.socket.lock");
        const int holder = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        QVERIFY(holder >= 0);
        const auto closeHolder = qScopeGuard([holder] { ::close(holder); });
        QCOMPARE(::flock(holder, LOCK_EX | LOCK_NB), 0);
        const QByteArray realName = QFile::encodeName(real);
        QCOMPARE(::chmod(realName.constData(), made == QStringLiteral("link") ? 0700 : 0777), 0);
        if (made == QStringLiteral("nobody's")) {
            QCOMPARE(::chown(realName.constData(), 65534, 65534), 0);
            QCOMPARE(::chmod(realName.constData(), 0700), 0);
            QCOMPARE(::chown(QFile::encodeName(lockPath).constData(), 65534, 65534), 0);
        }

        const QRegularExpression passedOver(QStringLiteral("^Veldspar does not look for its running copy in .*/tmp/org\\.kestrum\\.Veldspar\\.configure-%1: %2\\.$")
                                                .arg(::geteuid()).arg(QRegularExpression::escape(why)));
        QTest::ignoreMessage(QtWarningMsg, passedOver);
        QCOMPARE(SingleInstance::defaultServerName(), QString());

        QTest::ignoreMessage(QtWarningMsg, passedOver);
        QTest::ignoreMessage(QtWarningMsg, "Veldspar has no place of this user's own to look for its running copy; starting anyway.");
        QElapsedTimer took;
        took.start();
        SingleInstance start;
        QCOMPARE(start.claim(), Claim::Primary);
        QVERIFY2(took.elapsed() < 4000, "the start waited for a lock another account holds");
        QVERIFY(!QFileInfo::exists(real + QStringLiteral("/org.kestrum.Veldspar.configure.socket")));
    }

    void supportFolderFollowsHome()
    {
        TestWorld world;
        QCOMPARE(supportFolder(), world.home() + QStringLiteral("/.local/share/Veldspar"));
        QCOMPARE(configFilePath(), world.home() + QStringLiteral("/.local/share/Veldspar/config.json"));
    }

    void backgroundPoolHasRoomForStuckWork()
    {
        QVERIFY(backgroundPool().maxThreadCount() >= 16);
        QVERIFY(&backgroundPool() != QThreadPool::globalInstance());
    }

    void backgroundResultArrivesOnTheMainThread()
    {
        QObject receiver;
        QThread *worker = nullptr;
        QThread *delivered = nullptr;
        int value = 0;
        runInBackground(
            &receiver, [&worker] { worker = QThread::currentThread(); return 42; },
            [&](int result) { value = result; delivered = QThread::currentThread(); });
        QTRY_COMPARE(value, 42);
        QVERIFY(worker != QThread::currentThread());
        QCOMPARE(delivered, QThread::currentThread());
    }

    void backgroundResultIsDroppedWhenTheReceiverIsGone()
    {
        auto receiver = std::make_unique<QObject>();
        QSemaphore started;
        QSemaphore proceed;
        bool delivered = false;
        runInBackground(
            receiver.get(), [&] { started.release(); proceed.acquire(); return 1; }, [&](int) { delivered = true; });
        started.acquire();
        receiver.reset();
        proceed.release();
        backgroundPool().waitForDone();
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents();
        QVERIFY(!delivered);
    }
};

QTEST_MAIN(PlatformTest)
#include "tst_platform.moc"
