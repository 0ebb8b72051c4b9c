// The update engine and the release tool, end to end against an HTTP server on 127.0.0.1
// that each test starts for itself. Bundles live in temporary folders; HOME is temporary too.

#include "Privileges.h"
#include "TestSupport.h"

#include "app/AppDelegate.h"
#include "app/ServiceButton.h"

#include "tools/veldspar-release/ArchiveWriter.h"
#include "updates/Appcast.h"
#include "updates/Archive.h"
#include "updates/BundleInfo.h"
#include "updates/BundleSwap.h"
#include "updates/Eligibility.h"
#include "updates/EmberlaneUpdateCommands.h"
#include "updates/Fetch.h"
#include "updates/EmberlaneUpdates.h"
#include "updates/LinkedUpdateEngine.h"
#include "updates/UpdateEngineLoader.h"
#include "updates/StandardUserDriver.h"
#include "updates/PropertyList.h"
#include "updates/Relaunch.h"
#include "updates/Signature.h"
#include "updates/StagedUpdate.h"
#include "updates/UpdateErrors.h"
#include "updates/UpdateSchedule.h"
#include "updates/UpdateTexts.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/Updater.h"
#include "updates/UpdaterDelegate.h"
#include "updates/UserDriver.h"
#include "updates/UserSettings.h"
#include "updates/VersionComparator.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QDirIterator>
#include <QRegularExpression>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTextBrowser>
#include <QDialog>
#include <QLabel>
#include <QPointer>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <memory>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
const QString bundleIdentifier = QStringLiteral("org.kestrum.Veldspar.configure");
const QString gateText = QStringLiteral("Wait for the current service or configuration operation to finish.");

// ---------------------------------------------------------------------------------------
// A small HTTP/1.1 server: one response per connection, then the connection is closed.

struct Route
{
    int status = 200;
    QByteArray body;
    QByteArray contentType = "application/octet-stream";
    qint64 cutAfter = -1;     // close the connection after this many body bytes
    qint64 stallAfter = -1;   // send this many body bytes, then nothing more until released
    bool hold = false;        // answer only when released
    QByteArray location;      // for redirects
    qint64 generated = -1;    // instead of the body: this many bytes made up as the socket drains
};

class TestHttpServer : public QObject
{
public:
    TestHttpServer()
    {
        QVERIFY(m_server.listen(QHostAddress::LocalHost, 0));
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                socket->setParent(this);
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            }
        });
    }

    QString url(const QString &path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path);
    }

    void serve(const QString &path, const Route &route) { m_routes.insert(path, route); }
    void serve(const QString &path, const QByteArray &body, const QByteArray &contentType = "application/octet-stream")
    {
        Route route;
        route.body = body;
        route.contentType = contentType;
        m_routes.insert(path, route);
    }

    // Every request's path, in order.
    const QStringList &requests() const { return m_requests; }
    int requestsFor(const QString &path) const { return int(m_requests.count(path)); }

    void release()
    {
        const auto held = m_held;
        m_held.clear();
        for (const auto &[socket, path] : held)
            if (socket)
                respond(socket, path, false);
        for (const QPointer<QTcpSocket> &socket : std::as_const(m_stalled))
            if (socket)
                socket->abort();
        m_stalled.clear();
    }

private:
    void read(QTcpSocket *socket)
    {
        QByteArray &buffer = m_buffers[socket];
        buffer += socket->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QList<QByteArray> requestLine = buffer.left(buffer.indexOf("\r\n")).split(' ');
        m_buffers.remove(socket);
        const QString path = requestLine.size() >= 2 ? QString::fromLatin1(requestLine.at(1)) : QString();
        m_requests << path;
        respond(socket, path, true);
    }

    void respond(QTcpSocket *socket, const QString &path, bool mayHold)
    {
        const auto found = m_routes.constFind(path);
        if (found == m_routes.constEnd()) {
            socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\nConnection: close\r\n\r\nnot found");
            socket->disconnectFromHost();
            return;
        }
        const Route &route = *found;
        if (route.hold && mayHold) {
            m_held.append({QPointer<QTcpSocket>(socket), path});
            return;
        }
        QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status)
            + (route.status == 200 ? " OK" : route.status == 302 ? " Found" : " Error") + "\r\n";
        head += "Content-Type: " + route.contentType + "\r\n";
        head += "Content-Length: " + QByteArray::number(route.generated >= 0 ? route.generated : route.body.size()) + "\r\n";
        if (!route.location.isEmpty())
            head += "Location: " + route.location + "\r\n";
        head += "Connection: close\r\n\r\n";
        socket->write(head);
        if (route.generated >= 0) {
            m_unsent.insert(socket, route.generated);
            connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] { sendGenerated(socket); });
            sendGenerated(socket);
            return;
        }
        if (route.stallAfter >= 0) {
            socket->write(route.body.left(route.stallAfter));
            m_stalled.append(socket);
            return;
        }
        socket->write(route.cutAfter >= 0 ? route.body.left(route.cutAfter) : route.body);
        socket->disconnectFromHost();
    }

    // Keeps about one block waiting in the socket until the whole length has gone, so that a
    // body of any size costs the server no memory.
    void sendGenerated(QTcpSocket *socket)
    {
        static const QByteArray block(256 * 1024, 'v');
        const auto unsent = m_unsent.find(socket);
        if (unsent == m_unsent.end())
            return;
        while (*unsent > 0 && socket->bytesToWrite() < block.size()) {
            const qint64 size = qMin<qint64>(*unsent, block.size());
            socket->write(block.constData(), size);
            *unsent -= size;
        }
        if (*unsent == 0) {
            m_unsent.erase(unsent);
            socket->disconnectFromHost();
        }
    }

    QTcpServer m_server;
    QHash<QString, Route> m_routes;
    QHash<QTcpSocket *, qint64> m_unsent;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    QList<std::pair<QPointer<QTcpSocket>, QString>> m_held;
    QList<QPointer<QTcpSocket>> m_stalled;
    QStringList m_requests;
};

// A listening socket whose queue is full: the system drops every further attempt to
// connect unanswered, as happens with a server that never takes a connection.
class FullListener
{
public:
    FullListener()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), size) != 0
            || ::listen(m_listener, 0) != 0 || ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
            return;
        m_address = address;
        // The one connection a queue of length 0 takes.
        m_filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_filler >= 0 && ::connect(m_filler, reinterpret_cast<sockaddr *>(&address), size) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~FullListener()
    {
        for (const int descriptor : {m_filler, m_listener})
            if (descriptor >= 0)
                ::close(descriptor);
    }

    quint16 port() const { return m_port; }

    // Whether one more connection stays unanswered for a while (the system may answer it).
    bool dropsConnections() const
    {
        if (m_port == 0)
            return false;
        const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (probe < 0)
            return false;
        bool dropped = false;
        if (::connect(probe, reinterpret_cast<const sockaddr *>(&m_address), sizeof m_address) != 0 && errno == EINPROGRESS) {
            pollfd waiting{probe, POLLOUT, 0};
            dropped = ::poll(&waiting, 1, 300) == 0;
        }
        ::close(probe);
        return dropped;
    }

private:
    int m_listener = -1;
    int m_filler = -1;
    sockaddr_in m_address{};
    quint16 m_port = 0;
};

// This process's resident memory now ("VmRSS") or at its peak ("VmHWM"), in KiB; -1 when
// the system does not say.
qint64 residentKiB(const QByteArray &field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    return -1;
}

// Starts the peak (VmHWM) over from the present resident size; false where it cannot.
bool resetPeakResident()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    return clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
}

// ---------------------------------------------------------------------------------------
// Bundles, archives and feeds.

struct BundleRecipe
{
    QString version = QStringLiteral("1.0");
    QString shortVersion; // empty: the version
    QString identifier = bundleIdentifier;
    QString feedUrl;
    std::optional<QString> publicKey;
    std::optional<bool> automaticChecks;
    std::optional<qint64> interval;
    QByteArray extraFile; // a payload that makes the archive as large as a test needs
};

// Bytes that no compressor can shrink, so that an archive is as large as its payload.
QByteArray randomBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

QByteArray plist(const BundleRecipe &recipe)
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                     "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                     "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                     "<plist version=\"1.0\">\n<dict>\n";
    auto entry = [&](const char *key, const QString &value) {
        xml += "    <key>" + QByteArray(key) + "</key>\n    <string>" + value.toHtmlEscaped().toUtf8() + "</string>\n";
    };
    entry("CFBundleName", QStringLiteral("Veldspar"));
    entry("CFBundleExecutable", QStringLiteral("Veldspar"));
    entry("CFBundleIdentifier", recipe.identifier);
    entry("CFBundleShortVersionString", recipe.shortVersion.isEmpty() ? recipe.version : recipe.shortVersion);
    entry("CFBundleVersion", recipe.version);
    if (!recipe.feedUrl.isEmpty())
        entry("SUFeedURL", recipe.feedUrl);
    if (recipe.publicKey)
        entry("SUPublicEDKey", *recipe.publicKey);
    if (recipe.automaticChecks)
        xml += QByteArray("    <key>SUEnableAutomaticChecks</key>\n    <") + (*recipe.automaticChecks ? "true" : "false") + "/>\n";
    if (recipe.interval)
        xml += "    <key>SUScheduledCheckInterval</key>\n    <integer>" + QByteArray::number(*recipe.interval) + "</integer>\n";
    xml += "</dict>\n</plist>\n";
    return xml;
}

void put(const QString &path, const QByteArray &bytes, QFile::Permissions permissions = {})
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(bytes), bytes.size());
    file.close();
    if (permissions)
        QVERIFY(file.setPermissions(permissions));
}

QByteArray get(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeBundle(const QString &bundle, const BundleRecipe &recipe)
{
    const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
        | QFile::ReadOther | QFile::ExeOther;
    put(bundle + QStringLiteral("/Veldspar"), "#!/bin/sh\necho Veldspar " + recipe.version.toUtf8() + "\n", executable);
    put(bundle + QStringLiteral("/Resources/Info.plist"), plist(recipe));
    put(bundle + QStringLiteral("/Resources/Veldspar"), "#!/bin/sh\necho service " + recipe.version.toUtf8() + "\n", executable);
    if (!recipe.extraFile.isEmpty())
        put(bundle + QStringLiteral("/Resources/payload.bin"), recipe.extraFile);
}

// Every file, folder and link under root with its kind, permissions and contents.
QMap<QString, QByteArray> snapshot(const QString &root)
{
    QMap<QString, QByteArray> result;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info(path);
        struct stat status{};
        lstat(QFile::encodeName(path).constData(), &status);
        const QByteArray mode = QByteArray::number(status.st_mode & 07777, 8);
        const QString relative = QDir(root).relativeFilePath(path);
        if (info.isSymLink())
            result.insert(relative, "link " + QFile::encodeName(info.symLinkTarget()));
        else if (info.isDir())
            result.insert(relative, "folder " + mode);
        else
            result.insert(relative, "file " + mode + ' ' + get(path));
    }
    return result;
}

QString feedItem(const QString &version, const QString &url, qint64 length, const QString &signature,
                 const QString &extra = QString(), const QString &os = QStringLiteral("linux"))
{
    QString enclosure = QStringLiteral("<enclosure url=\"%1\" length=\"%2\" type=\"application/x-xz\"").arg(url.toHtmlEscaped()).arg(length);
    if (!os.isEmpty())
        enclosure += QStringLiteral(" sparkle:os=\"%1\"").arg(os);
    if (!signature.isNull())
        enclosure += QStringLiteral(" sparkle:edSignature=\"%1\"").arg(signature);
    enclosure += QStringLiteral("/>");
    return QStringLiteral("<item><title>Veldspar %1</title><sparkle:version>%1</sparkle:version>%2%3</item>")
        .arg(version, enclosure, extra);
}

QByteArray feedXml(const QStringList &items)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                          "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
                          "<channel><title>Veldspar</title>\n%1\n</channel></rss>\n")
        .arg(items.join(u'\n'))
        .toUtf8();
}

// ---------------------------------------------------------------------------------------
// The user driver and the delegate, as a user and the app would answer.

class RecordingDriver : public UserDriver
{
public:
    QStringList events;
    QList<std::pair<qint64, qint64>> progress;
    std::optional<UpdateOffer> offer;
    std::optional<Error> error;
    std::optional<UpToDate> upToDate;
    std::optional<ReleaseNotes> notes;

    std::optional<UpdateAnswer> offerAnswer = UpdateAnswer::Install; // none: keep the reply
    std::optional<InstallAnswer> readyAnswer = InstallAnswer::InstallAndRelaunch;
    bool permissionAnswer = true;
    bool cancelDownloadAtFirstProgress = false;
    std::function<void(UpdateAnswer)> offerReply;
    std::function<void(InstallAnswer)> readyReply;
    std::function<void()> cancel;

    void showUpdatePermissionRequest(std::function<void(bool)> reply) override
    {
        events << QStringLiteral("permission");
        reply(permissionAnswer);
    }
    void showUserInitiatedUpdateCheck(std::function<void()> cancelCheck) override
    {
        events << QStringLiteral("checking");
        cancel = cancelCheck;
    }
    void showUpdateFound(const UpdateOffer &found, std::function<void(UpdateAnswer)> reply) override
    {
        events << QStringLiteral("found ") + found.item.versionLabel();
        offer = found;
        offerReply = reply;
        if (offerAnswer)
            reply(*offerAnswer);
    }
    void showReleaseNotes(const ReleaseNotes &fetched) override
    {
        events << QStringLiteral("notes");
        notes = fetched;
    }
    void showReleaseNotesFailed(const Error &failure) override
    {
        events << QStringLiteral("notes failed: ") + failure.localizedDescription();
    }
    void showUpdateNotFound(const UpToDate &message) override
    {
        events << QStringLiteral("up to date");
        upToDate = message;
    }
    void showUpdaterError(const Error &failure) override
    {
        events << QStringLiteral("error");
        error = failure;
    }
    void showDownloadStarted(std::function<void()> cancelDownload) override
    {
        events << QStringLiteral("downloading");
        cancel = cancelDownload;
    }
    void showDownloadProgress(qint64 received, qint64 expected) override
    {
        progress.append({received, expected});
        if (cancelDownloadAtFirstProgress && cancel)
            cancel();
    }
    void showExtractionStarted() override { events << QStringLiteral("unpacking"); }
    void showReadyToInstall(std::function<void(InstallAnswer)> reply) override
    {
        events << QStringLiteral("ready");
        readyReply = reply;
        if (readyAnswer)
            reply(*readyAnswer);
    }
    void showInstallingUpdate() override { events << QStringLiteral("installing"); }
    void showUpdateInFocus() override { events << QStringLiteral("focus"); }
    void dismissUpdateInstallation() override { events << QStringLiteral("dismiss"); }
};

// The app's gate: refuses updates while an operation runs and holds the relaunch until it
// has finished, polling once a second.
class GateDelegate : public UpdaterDelegate
{
public:
    bool busy = false;
    int proceedQuestions = 0;
    int postponeQuestions = 0;
    QStringList alerts;
    std::function<void()> pendingInstall;
    QTimer timer;

    GateDelegate()
    {
        timer.setInterval(1000);
        QObject::connect(&timer, &QTimer::timeout, [this] {
            if (busy)
                return;
            timer.stop();
            auto install = std::move(pendingInstall);
            pendingInstall = nullptr;
            if (install)
                install();
        });
    }

    std::optional<Error> shouldProceedWithUpdate(const AppcastItem &, CheckKind) override
    {
        ++proceedQuestions;
        if (!busy)
            return std::nullopt;
        return Error(QStringLiteral("com.emberlane.updates"), 1, {{Error::descriptionKey, gateText}});
    }

    bool shouldPostponeRelaunch(const AppcastItem &, std::function<void()> install) override
    {
        ++postponeQuestions;
        if (!busy)
            return false;
        pendingInstall = std::move(install);
        timer.start();
        alerts << gateText + QStringLiteral(" The update will continue when it is safe to restart.");
        return true;
    }
};

// Runs program to its end, for 60 s at most; status gets its exit code, or 128 plus the
// signal that ended it (QProcess gives that signal as the exit code).
QString runProgram(const QString &program, const QStringList &arguments, int *status = nullptr, QString *errors = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted())
        return QStringLiteral("(not started)");
    // The test's own server may have to answer meanwhile: keep the event loop turning.
    QDeadlineTimer deadline(60000);
    while (process.state() != QProcess::NotRunning && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        process.waitForFinished(20);
    }
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (status)
        *status = process.exitCode() + (process.exitStatus() == QProcess::CrashExit ? 128 : 0);
    if (errors)
        *errors = QString::fromUtf8(process.readAllStandardError());
    return QString::fromUtf8(process.readAllStandardOutput());
}

QString runTool(const QStringList &arguments, int *status = nullptr, QString *errors = nullptr)
{
    return runProgram(QStringLiteral(VELDSPAR_RELEASE_TOOL), arguments, status, errors);
}

// Runs work() in a child process that sees folder as a fresh filesystem of `bytes` bytes (a
// disk that fills up), and returns the text work() gave. Nothing when this machine lets no
// process have a mount of its own (no mount namespace), so that the caller can skip.
std::optional<QString> runOnSmallDisk(const QString &folder, qint64 bytes, const std::function<QString()> &work)
{
    constexpr int unavailable = 77;
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0)
        return std::nullopt;
    const QByteArray mountPoint = QFile::encodeName(folder);
    const QByteArray options = "size=" + QByteArray::number(bytes);
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    const pid_t child = fork();
    if (child < 0)
        return std::nullopt;
    if (child == 0) {
        close(channel[0]);
        auto writeFile = [](const char *path, const QByteArray &text) {
            const int fd = open(path, O_WRONLY | O_CLOEXEC);
            const bool written = fd >= 0 && write(fd, text.constData(), size_t(text.size())) == text.size();
            if (fd >= 0)
                close(fd);
            return written;
        };
        if (unshare(CLONE_NEWNS) != 0) {
            if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !writeFile("/proc/self/setgroups", "deny")
                || !writeFile("/proc/self/uid_map", "0 " + QByteArray::number(uid) + " 1")
                || !writeFile("/proc/self/gid_map", "0 " + QByteArray::number(gid) + " 1"))
                _exit(unavailable);
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
            || mount("veldspar-test", mountPoint.constData(), "tmpfs", 0, options.constData()) != 0)
            _exit(unavailable);
        const QByteArray answer = work().toUtf8();
        const bool sent = write(channel[1], answer.constData(), size_t(answer.size())) == answer.size();
        _exit(sent ? 0 : 1);
    }
    close(channel[1]);
    QByteArray answer;
    char buffer[4096];
    const QDeadlineTimer deadline(60000);
    while (!deadline.hasExpired()) {
        pollfd readable{channel[0], POLLIN, 0};
        if (poll(&readable, 1, int(qMin<qint64>(deadline.remainingTime(), 1000))) <= 0)
            continue;
        const ssize_t got = read(channel[0], buffer, sizeof buffer);
        if (got <= 0)
            break;
        answer.append(buffer, got);
    }
    close(channel[0]);
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0 && !deadline.hasExpired())
        QThread::msleep(10);
    if (ended != child) {
        kill(child, SIGKILL); // did not finish in time
        waitpid(child, &status, 0);
        return QStringLiteral("(the child did not finish)");
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == unavailable)
        return std::nullopt;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return QStringLiteral("(the child ended with status %1)").arg(status);
    return QString::fromUtf8(answer);
}
// How many engines the app's owner of the updater has made since countEngines(); the linked
// engine comes back as the factory when the returned guard goes.
int enginesMade = 0;

auto countEngines()
{
    enginesMade = 0;
    setUpdateEngineFactory([](UserDriver *driver, UpdaterDelegate *delegate, const QString &bundle) {
        ++enginesMade;
        return veldsparCreateUpdateEngine(driver, delegate, bundle);
    });
    return qScopeGuard([] { setUpdateEngineFactory(&veldsparCreateUpdateEngine); });
}

} // namespace

class UpdatesTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_root;
    std::unique_ptr<TestHttpServer> m_server;
    QString m_applications; // the folder that holds the installed bundle
    QString m_bundle;
    Ed25519KeyPair m_keys;
    QList<RelaunchCommand> m_relaunches;
    QByteArray m_originalHome;
    int m_releases = 0;
    QString m_lastRelease; // the bundle folder of the last publish()

    QString root() const { return m_root->path(); }

    BundleRecipe installedRecipe() const
    {
        BundleRecipe recipe;
        recipe.feedUrl = m_server->url(QStringLiteral("/appcast.xml"));
        recipe.publicKey = QString::fromLatin1(m_keys.publicKey.toBase64());
        return recipe;
    }

    void install(const BundleRecipe &recipe) { writeBundle(m_bundle, recipe); }

    // Builds a bundle, packs it as a release is packed, and serves it; returns the archive.
    QByteArray publish(const BundleRecipe &recipe, const QString &path, ArchiveFormat format = ArchiveFormat::TarXz)
    {
        const QString folder = root() + QStringLiteral("/release-%1").arg(++m_releases);
        m_lastRelease = folder + QStringLiteral("/Veldspar.app");
        writeBundle(m_lastRelease, recipe);
        const QString archive = folder + QStringLiteral("/release.archive");
        writeArchive(folderEntries(folder + QStringLiteral("/Veldspar.app")), archive, format);
        const QByteArray bytes = get(archive);
        m_server->serve(path, bytes);
        return bytes;
    }

    QString signature(const QByteArray &bytes, const QByteArray &seed = QByteArray()) const
    {
        return QString::fromLatin1(signDetached(bytes, seed.isEmpty() ? m_keys.seed : seed).toBase64());
    }

    void serveFeed(const QStringList &items)
    {
        m_server->serve(QStringLiteral("/appcast.xml"), feedXml(items), "application/rss+xml");
    }

    // The 1.1 release, correctly packed, signed and listed.
    QByteArray publishGoodUpdate()
    {
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
        serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")), archive.size(),
                            signature(archive))});
        return archive;
    }

    std::unique_ptr<Updater> startedUpdater(RecordingDriver &driver, UpdaterDelegate *delegate = nullptr)
    {
        auto updater = std::make_unique<Updater>(&driver, delegate, nullptr, m_bundle);
        updater->start();
        return updater;
    }

    // Checks as a user would, answering with the driver's script, until the session ends.
    void checkAndWait(Updater &updater)
    {
        QSignalSpy finished(&updater, &Updater::sessionFinished);
        updater.checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 20000);
    }

    QStringList besideBundle() const
    {
        return QDir(m_applications).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    }

    // Version 1.0 installed and 1.1 staged at staged, each with the crash probe as its
    // executable; returns each one's snapshot by version.
    QMap<QString, QMap<QString, QByteArray>> installWithUpdateStaged(const QString &staged)
    {
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        QMap<QString, QMap<QString, QByteArray>> bundles;
        for (const auto &[bundle, recipe] : {std::pair{m_bundle, installedRecipe()}, std::pair{staged, next}}) {
            writeBundle(bundle, recipe);
            QFile::remove(bundle + QStringLiteral("/Veldspar"));
            if (!QFile::copy(QStringLiteral(VELDSPAR_SWAP_CRASH_PROBE), bundle + QStringLiteral("/Veldspar")))
                qFatal("the probe could not be copied into %s", qPrintable(bundle));
            bundles.insert(recipe.version, snapshot(bundle));
        }
        return bundles;
    }

    // A refused update leaves the installed bundle exactly as it was and nothing beside it.
    // Version 1.1 on the feed, its download stopping a third of the way until the server is released.
    void offerUpdateWhoseDownloadStalls()
    {
        install(installedRecipe());
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        next.extraFile = randomBytes(200000);
        const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
        Route stalled;
        stalled.body = archive;
        stalled.stallAfter = archive.size() / 3;
        m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), stalled);
        serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")), archive.size(),
                            signature(archive))});
    }

    // 0.3 s instead of 30 s for the connection and each next byte, so that a test of a silent
    // server takes a moment; cleanup() restores them.
    static void shortenFetchTimeouts()
    {
        setFetchTimeoutsForTesting(FetchTimeouts{std::chrono::milliseconds(300), std::chrono::milliseconds(300)});
    }

    void expectUntouched(const QMap<QString, QByteArray> &before)
    {
        QCOMPARE(snapshot(m_bundle), before);
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        QVERIFY(m_relaunches.isEmpty());
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_originalHome = qgetenv("HOME");
        m_keys = generateKeyPair();
        QLocale::setDefault(QLocale::c());
        setRelaunchForTesting([this](const RelaunchCommand &command) { m_relaunches << command; });
    }

    void cleanupTestCase()
    {
        setRelaunchForTesting({});
        qputenv("HOME", m_originalHome);
    }

    void init()
    {
        m_root = std::make_unique<QTemporaryDir>();
        QVERIFY(m_root->isValid());
        QDir().mkpath(root() + QStringLiteral("/home"));
        qputenv("HOME", QFile::encodeName(root() + QStringLiteral("/home")));
        m_applications = root() + QStringLiteral("/Applications");
        m_bundle = m_applications + QStringLiteral("/Veldspar.app");
        m_server = std::make_unique<TestHttpServer>();
        m_relaunches.clear();
        UpdateUserSettings::startNewRunForTesting(); // each test is a fresh installation's first run
    }

    void cleanup()
    {
        setFetchTimeoutsForTesting(std::nullopt);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        m_server.reset();
        QFile::setPermissions(m_applications, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_root.reset();
    }

    // -----------------------------------------------------------------------------------
    // Versions

    void comparatorOrdersVersions_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("expected");
        const QList<std::tuple<const char *, const char *, int>> table{
            {"1.0b1", "1.0", -1},         {"1.0", "1.0.1", -1},        {"1.0a1", "1.0b1", -1},
            {"1.0b9", "1.0b10", -1},      {"1.5.5-abc", "1.5.5-def", 0}, {"1.0", "1.0.0", 0},
            {"1.0.0", "1.0", 0},          {"1.0", "1.0", 0},           {"1.1", "1.0", 1},
            {"1.10", "1.9", 1},           {"2", "10", -1},             {"1.0.10", "1.0.9", 1},
            {"1.0b1", "1.0.1", -1},       {"1.0rc1", "1.0", -1},       {"1.0", "1.0rc1", 1},
            {"1.0a", "1.0b", -1},         {"1.0beta", "1.0", -1},      {"1.0-beta", "1.0", 0},
            // A separator is not a string: what follows it makes the version newer.
            {"1.0 beta", "1.0", 1},
            {"1.0.0.0.0", "1", 0},        {"0.9", "1.0", -1},          {"01.2", "1.2", 0},
            {"1.2.3", "1.2.3.1", -1},     {"1.2.3.1", "1.2.4", -1},    {"10.0", "9.99", 1},
            {"1.0 (42)", "1.0 (43)", -1}, {"1.0_1", "1.0 1", 0},       {"1.0a2", "1.0a10", -1},
            {"1.0b", "1.0b1", -1},        {"123456789012345678901", "123456789012345678902", -1},
            {"1.0", "1.0a", 1},           {"6.1.0-18-amd64", "6.1", 0}, {"6.1.0-18-amd64", "6.2", -1},
            {"1.0.1", "1.0a1", 1},        {"", "1.0", -1},             {"1.0.0", "1.0.0", 0},
        };
        for (const auto &[a, b, expected] : table)
            QTest::addRow("%s vs %s", a, b) << QString::fromUtf8(a) << QString::fromUtf8(b) << expected;
    }

    void comparatorOrdersVersions()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        const auto sign = [](int value) { return (value > 0) - (value < 0); };
        QCOMPARE(sign(compareVersions(a, b)), expected);
        QCOMPARE(sign(compareVersions(b, a)), -expected); // and the other way round
    }

    void comparatorSortsAReleaseHistoryInOrder()
    {
        const QStringList history{QStringLiteral("0.9"),    QStringLiteral("1.0a1"), QStringLiteral("1.0a2"),
                                  QStringLiteral("1.0b1"),  QStringLiteral("1.0b2"), QStringLiteral("1.0b10"),
                                  QStringLiteral("1.0"),    QStringLiteral("1.0.1"), QStringLiteral("1.0.2"),
                                  QStringLiteral("1.0.10"), QStringLiteral("1.1"),   QStringLiteral("2.0")};
        for (qsizetype i = 0; i < history.size(); ++i)
            for (qsizetype j = 0; j < history.size(); ++j) {
                const int order = compareVersions(history.at(i), history.at(j));
                QVERIFY2((i < j && order < 0) || (i == j && order == 0) || (i > j && order > 0),
                         qPrintable(history.at(i) + QStringLiteral(" vs ") + history.at(j)));
            }
    }

    // Sorting and choosing the newest item rely on a total order, odd version texts included.
    void comparatorIsATotalOrder()
    {
        QStringList versions{QString()};
        const QStringList alphabet{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("."), QStringLiteral(" "),
                                   QStringLiteral("b"), QStringLiteral("-")};
        for (qsizetype from = 0, length = 1; length <= 3; ++length) {
            const qsizetype to = versions.size();
            for (qsizetype i = from; i < to; ++i)
                for (const QString &character : alphabet)
                    versions << versions.at(i) + character;
            from = to;
        }
        versions << QStringLiteral(".0 0") << QStringLiteral("1.0") << QStringLiteral("1.0.0") << QStringLiteral("0.0.1")
                 << QStringLiteral("1.0b1") << QStringLiteral("1.0 1") << QStringLiteral("1..2") << QStringLiteral("01")
                 << QStringLiteral("1.0.5") << QStringLiteral("1.0 5") << QStringLiteral("1.0 0 7") << QStringLiteral("a")
                 << QStringLiteral("Z") << QStringLiteral("1_0") << QStringLiteral("\u0661.\u0660");
        const qsizetype n = versions.size();
        QList<int> order(n * n);
        for (qsizetype i = 0; i < n; ++i)
            for (qsizetype j = 0; j < n; ++j) {
                const int result = compareVersions(versions.at(i), versions.at(j));
                order[i * n + j] = (result > 0) - (result < 0);
            }
        const auto show = [&](qsizetype i) { return QStringLiteral("\"%1\"").arg(versions.at(i)); };
        for (qsizetype i = 0; i < n; ++i) {
            QVERIFY2(order[i * n + i] == 0, qPrintable(show(i)));
            for (qsizetype j = 0; j < n; ++j)
                QVERIFY2(order[i * n + j] == -order[j * n + i], qPrintable(show(i) + QStringLiteral(" vs ") + show(j)));
        }
        for (qsizetype a = 0; a < n; ++a)
            for (qsizetype b = 0; b < n; ++b) {
                const int ab = order[a * n + b];
                for (qsizetype c = 0; c < n; ++c) {
                    const int bc = order[b * n + c];
                    const int ac = order[a * n + c];
                    // Equal versions compare alike with everything; and a <= b <= c means a <= c.
                    if ((ab == 0 && ac != bc) || (ab <= 0 && bc <= 0 && ac > 0))
                        QFAIL(qPrintable(QStringLiteral("%1 %2 %3 and %3 %4 %5, but %1 %6 %5")
                                             .arg(show(a), QString::fromLatin1(ab < 0 ? "<" : ab > 0 ? ">" : "="), show(b),
                                                  QString::fromLatin1(bc < 0 ? "<" : bc > 0 ? ">" : "="), show(c),
                                                  QString::fromLatin1(ac < 0 ? "<" : ac > 0 ? ">" : "="))));
                }
            }
    }

    // -----------------------------------------------------------------------------------
    // Settings

    void propertyListValuesAreRead()
    {
        const QVariantMap values = readPropertyList(
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
            "<key>s</key><string>text &amp; more</string><key>i</key><integer>86400</integer>"
            "<key>t</key><true/><key>f</key><false/><key>r</key><real>1.5</real>"
            "<key>a</key><array><string>x</string><integer>2</integer></array>"
            "<key>d</key><dict><key>inner</key><string>y</string></dict></dict></plist>",
            QStringLiteral("test.plist"));
        QCOMPARE(values.value(QStringLiteral("s")).toString(), QStringLiteral("text & more"));
        QCOMPARE(values.value(QStringLiteral("i")).toLongLong(), 86400);
        QCOMPARE(values.value(QStringLiteral("t")).typeId(), QMetaType::Bool);
        QCOMPARE(values.value(QStringLiteral("t")).toBool(), true);
        QCOMPARE(values.value(QStringLiteral("f")).toBool(), false);
        QCOMPARE(values.value(QStringLiteral("r")).toDouble(), 1.5);
        QCOMPARE(values.value(QStringLiteral("a")).toList().size(), 2);
        QCOMPARE(values.value(QStringLiteral("d")).toMap().value(QStringLiteral("inner")).toString(), QStringLiteral("y"));
    }

    void brokenPropertyListIsReported()
    {
        try {
            readPropertyList("<plist><dict><key>a</key></dict></plist>", QStringLiteral("Info.plist"));
            QFAIL("a key without a value was accepted");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(), QStringLiteral("Info.plist is not valid: the key \u201c""a\u201d has no value."));
        }
    }

    void deeplyNestedPropertyListIsRefused()
    {
        const auto nested = [](int depth) {
            return "<plist><dict><key>a</key>" + QByteArray("<array>").repeated(depth)
                + QByteArray("</array>").repeated(depth) + "</dict></plist>";
        };
        // The top dictionary and 99 arrays inside it are read.
        QVariant value = readPropertyList(nested(99), QStringLiteral("Info.plist")).value(QStringLiteral("a"));
        for (int level = 1; level < 99; ++level)
            value = value.toList().value(0);
        QCOMPARE(value.toList().size(), 0);
        for (const int depth : {100, 200000}) {
            try {
                readPropertyList(nested(depth), QStringLiteral("Info.plist"));
                QFAIL("a property list nested too deeply was read");
            } catch (const Error &error) {
                QCOMPARE(error.localizedDescription(),
                         QStringLiteral("Info.plist is not valid: its values are nested more than 100 levels deep."));
            }
        }
    }

    void checkIntervalHasDefaultAndFloor_data()
    {
        QTest::addColumn<std::optional<qint64>>("written");
        QTest::addColumn<qint64>("used");
        QTest::newRow("absent") << std::optional<qint64>() << qint64(86400);
        QTest::newRow("zero means never") << std::optional<qint64>(0) << qint64(0);
        QTest::newRow("below the floor") << std::optional<qint64>(60) << qint64(3600);
        QTest::newRow("above the floor") << std::optional<qint64>(7200) << qint64(7200);
        QTest::newRow("negative") << std::optional<qint64>(-5) << qint64(86400);
    }

    void checkIntervalHasDefaultAndFloor()
    {
        QFETCH(std::optional<qint64>, written);
        QFETCH(qint64, used);
        BundleRecipe recipe = installedRecipe();
        recipe.interval = written;
        install(recipe);
        const UpdaterConfiguration configuration = updaterConfiguration(readBundleInfo(m_bundle));
        QCOMPARE(configuration.checkInterval, used);
        QCOMPARE(configuration.feedUrl, QUrl(recipe.feedUrl));
        QCOMPARE(configuration.publicKey, m_keys.publicKey);
        QVERIFY(!configuration.enableAutomaticChecks);
    }

    void anInfoPlistThatIsNotASmallFileIsRefusedWithoutWaiting_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("a pipe") << QStringLiteral("fifo");
        QTest::newRow("a property list over the limit") << QStringLiteral("large");
    }

    void anInfoPlistThatIsNotASmallFileIsRefusedWithoutWaiting()
    {
        QFETCH(QString, kind);
        install(installedRecipe());
        const QString infoPlist = m_bundle + QStringLiteral("/Resources/Info.plist");
        const QByteArray shipped = readTestFile(infoPlist);
        QVERIFY(QFile::remove(infoPlist));
        if (kind == QStringLiteral("fifo")) {
            QCOMPARE(::mkfifo(QFile::encodeName(infoPlist).constData(), 0600), 0);
        } else {
            // Still a valid property list: only its size is wrong.
            QByteArray padded = shipped;
            padded.insert(padded.lastIndexOf("</plist>"), QByteArray(largestInfoPlist, ' '));
            writeTestFile(infoPlist, padded);
        }
        QString message;
        try {
            readBundleInfo(m_bundle);
        } catch (const Error &error) {
            message = error.localizedDescription();
        }
        QVERIFY2(message.contains(infoPlist), qPrintable(message));
    }

    void aSettingsStoreThatIsNotASmallFileIsLeftAlone_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("a pipe") << QStringLiteral("fifo");
        QTest::newRow("a store over the limit") << QStringLiteral("large");
    }

    void aSettingsStoreThatIsNotASmallFileIsLeftAlone()
    {
        QFETCH(QString, kind);
        const QString store = UpdateUserSettings::filePath();
        QDir().mkpath(QFileInfo(store).path());
        QFile::remove(store);
        QByteArray written;
        if (kind == QStringLiteral("fifo")) {
            QCOMPARE(::mkfifo(QFile::encodeName(store).constData(), 0600), 0);
        } else {
            // Valid settings, only too many of them.
            written = "[General]\nSUEnableAutomaticChecks=true\nSUSkippedVersion=1.1\n";
            while (written.size() <= UpdateUserSettings::largestFile)
                written += "; a comment line that only makes the file larger than a settings file is\n";
            writeTestFile(store, written);
        }
        QVERIFY(!UpdateUserSettings::automaticChecks().has_value());
        QVERIFY(UpdateUserSettings::skippedVersion().isEmpty());
        UpdateUserSettings::setAutomaticChecks(false);
        const int group = UpdateUserSettings::rolloutGroup();
        QVERIFY(group >= 0 && group < 7);
        // What is there stays as it was.
        const QFileInfo after(store);
        if (kind == QStringLiteral("fifo"))
            QVERIFY(!after.isFile() && after.exists());
        else
            QCOMPARE(readTestFile(store), written);
        QFile::remove(store);
    }

    void shippedInfoPlistHasTheUpdateSettings()
    {
        QFile source(QStringLiteral(VELDSPAR_SOURCE_RESOURCES_DIR "/Info.plist.in"));
        QVERIFY(source.open(QIODevice::ReadOnly));
        const QVariantMap values = readPropertyList(source.readAll(), QStringLiteral("Info.plist.in"));
        QCOMPARE(QUrl(values.value(QStringLiteral("SUFeedURL")).toString()).scheme(), QStringLiteral("https"));
        QCOMPARE(decodePublicEdKey(values.value(QStringLiteral("SUPublicEDKey")).toString()).size(), 32);
        QCOMPARE(values.value(QStringLiteral("SUScheduledCheckInterval")).toLongLong(), 86400);
        // Left open on purpose: the second launch asks the user.
        QVERIFY(!values.contains(QStringLiteral("SUEnableAutomaticChecks")));
    }

    void invalidPublicKeyStopsTheUpdaterFromStarting_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("message");
        QTest::newRow("too short") << QStringLiteral("AAAA")
                                   << QStringLiteral("The update key SUPublicEDKey in Info.plist is not valid: an Ed25519 "
                                                     "public key has 32 bytes, this one has 3.");
        QTest::newRow("not base64") << QStringLiteral("not a key!")
                                    << QStringLiteral("The update key SUPublicEDKey in Info.plist is not valid: \u201cnot a "
                                                      "key!\u201d is not base64 text.");
    }

    void invalidPublicKeyStopsTheUpdaterFromStarting()
    {
        QFETCH(QString, key);
        QFETCH(QString, message);
        BundleRecipe recipe = installedRecipe();
        recipe.publicKey = key;
        install(recipe);
        RecordingDriver driver;
        Updater updater(&driver, nullptr, nullptr, m_bundle);
        QSignalSpy canCheck(&updater, &Updater::canCheckForUpdatesChanged);
        try {
            updater.start();
            QFAIL("the updater started with an invalid key");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(), message);
            QCOMPARE(error.domain(), updateErrorDomain);
        }
        QVERIFY(!updater.canCheckForUpdates());
        updater.checkForUpdates();
        QTest::qWait(100);
        QVERIFY(m_server->requests().isEmpty());
        QVERIFY(driver.events.isEmpty());
        QCOMPARE(canCheck.count(), 0);
    }

    void missingKeyStopsTheUpdaterFromStarting()
    {
        BundleRecipe recipe = installedRecipe();
        recipe.publicKey.reset();
        install(recipe);
        RecordingDriver driver;
        Updater updater(&driver, nullptr, nullptr, m_bundle);
        QVERIFY_THROWS_EXCEPTION(Error, updater.start());
        QVERIFY(!updater.canCheckForUpdates());
    }

    // -----------------------------------------------------------------------------------
    // The feed

    void feedItemsAreRead()
    {
        // Any prefix may stand for the update namespace.
        const QByteArray xml =
            "<?xml version=\"1.0\"?>\n"
            "<rss version=\"2.0\" xmlns:up=\"http://www.andymatuschak.org/xml-namespaces/sparkle\" "
            "xmlns:dc=\"http://purl.org/dc/elements/1.1/\">\n<channel><title>Veldspar Changelog</title>\n"
            "<item><title>Version 1.2</title>\n"
            "  <link>https://veldspar.example/</link>\n"
            "  <up:releaseNotesLink xml:lang=\"de\">notes-de.html</up:releaseNotesLink>\n"
            "  <up:releaseNotesLink>notes/1.2.html</up:releaseNotesLink>\n"
            "  <up:fullReleaseNotesLink>https://veldspar.example/history</up:fullReleaseNotesLink>\n"
            "  <pubDate>Sat, 01 Nov 2025 10:00:00 +0000</pubDate>\n"
            "  <up:version>ignored-when-the-enclosure-has-one</up:version>\n"
            "  <up:minimumSystemVersion>5.10</up:minimumSystemVersion>\n"
            "  <up:maximumSystemVersion>7.0</up:maximumSystemVersion>\n"
            "  <up:criticalUpdate up:version=\"1.1\"/>\n"
            "  <up:phasedRolloutInterval>86400</up:phasedRolloutInterval>\n"
            "  <enclosure url=\"https://veldspar.example/mac.zip\" up:os=\"macos\" length=\"5\" up:version=\"99\"/>\n"
            "  <enclosure url=\"../files/Veldspar-1.2.tar.xz\" length=\"1234\" type=\"application/x-xz\" "
            "up:version=\"120\" up:shortVersionString=\"1.2\" up:os=\"linux\" up:edSignature=\"c2ln\"/>\n"
            "</item>\n"
            "<item><title>Notice</title><up:version>1.3</up:version><up:channel>beta</up:channel>\n"
            "  <description up:format=\"markdown\"><![CDATA[# Heads up\n*soon*]]></description>\n"
            "  <up:informationalUpdate><up:belowVersion>1.2</up:belowVersion></up:informationalUpdate>\n"
            "  <link>https://veldspar.example/news</link>\n"
            "</item>\n"
            "</channel></rss>\n";
        const Appcast appcast = parseAppcast(xml, QUrl(QStringLiteral("https://updates.veldspar.example/linux/appcast.xml")));
        QCOMPARE(appcast.title, QStringLiteral("Veldspar Changelog"));
        QCOMPARE(appcast.items.size(), 2);

        const AppcastItem &first = appcast.items.at(0);
        QCOMPARE(first.position, 1);
        QCOMPARE(first.title, QStringLiteral("Version 1.2"));
        QCOMPARE(first.version, QStringLiteral("120"));
        QCOMPARE(first.displayVersion, QStringLiteral("1.2"));
        QCOMPARE(first.versionLabel(), QStringLiteral("1.2 (120)"));
        QCOMPARE(first.os, QStringLiteral("linux"));
        QVERIFY(first.enclosure);
        QCOMPARE(first.enclosure->url, QUrl(QStringLiteral("https://updates.veldspar.example/files/Veldspar-1.2.tar.xz")));
        QCOMPARE(first.enclosure->length, 1234);
        QCOMPARE(first.enclosure->edSignature, std::optional<QString>(QStringLiteral("c2ln")));
        QCOMPARE(first.releaseNotesLink, QUrl(QStringLiteral("https://updates.veldspar.example/linux/notes/1.2.html")));
        QCOMPARE(first.fullReleaseNotesLink, QUrl(QStringLiteral("https://veldspar.example/history")));
        QCOMPARE(first.link, QUrl(QStringLiteral("https://veldspar.example/")));
        QCOMPARE(first.pubDate, QDateTime(QDate(2025, 11, 1), QTime(10, 0), Qt::UTC));
        QCOMPARE(first.minimumSystemVersion, QStringLiteral("5.10"));
        QCOMPARE(first.maximumSystemVersion, QStringLiteral("7.0"));
        QCOMPARE(first.phasedRolloutInterval, std::optional<qint64>(86400));
        QVERIFY(first.isCriticalFor(QStringLiteral("1.0")));
        QVERIFY(!first.isCriticalFor(QStringLiteral("1.1")));
        QVERIFY(!first.isInformationalFor(QStringLiteral("1.0")));

        const AppcastItem &second = appcast.items.at(1);
        QCOMPARE(second.version, QStringLiteral("1.3"));
        QCOMPARE(second.channel, QStringLiteral("beta"));
        QVERIFY(!second.enclosure);
        QCOMPARE(second.description, QStringLiteral("# Heads up\n*soon*"));
        QCOMPARE(second.descriptionFormat, NotesFormat::Markdown);
        QVERIFY(second.isInformationalFor(QStringLiteral("1.1")));
        QVERIFY(!second.isInformationalFor(QStringLiteral("1.2")));
    }

    void feedsThatAreRefused_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QString>("message");
        const QString where = QStringLiteral("The update feed at https://updates.veldspar.example/appcast.xml");
        QTest::newRow("file link") << feedXml({feedItem(QStringLiteral("1.1"), QStringLiteral("file:///etc/passwd"), 5, QStringLiteral("x"))})
                                   << where + QStringLiteral(" is not valid: item 1.1 links to file:///etc/passwd; only "
                                                             "http and https links are allowed.");
        QTest::newRow("javascript release notes")
            << feedXml({feedItem(QStringLiteral("1.1"), QStringLiteral("https://a.example/x"), 5, QStringLiteral("x"),
                                 QStringLiteral("<sparkle:releaseNotesLink>javascript:alert(1)</sparkle:releaseNotesLink>"))})
            << where + QStringLiteral(" is not valid: item 1.1 links to javascript:alert(1); only http and https links "
                                      "are allowed.");
        QTest::newRow("external entity")
            << QByteArray("<?xml version=\"1.0\"?>\n<!DOCTYPE rss [<!ENTITY secret SYSTEM \"file:///etc/passwd\">]>\n"
                          "<rss version=\"2.0\"><channel><title>&secret;</title></channel></rss>")
            << where + QStringLiteral(" is not valid: it declares XML entities, which are never loaded.");
        QTest::newRow("html page") << QByteArray("<html><body>Not here</body></html>")
                                   << where + QStringLiteral(" is not valid: it is not an RSS feed (its root element is <html>).");
    }

    void feedsThatAreRefused()
    {
        QFETCH(QByteArray, xml);
        QFETCH(QString, message);
        try {
            parseAppcast(xml, QUrl(QStringLiteral("https://updates.veldspar.example/appcast.xml")));
            QFAIL("the feed was accepted");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(), message);
            QCOMPARE(error.code(), int(UpdateErrorCode::InvalidFeed));
        }
    }

    void textThatIsNotXmlIsRefused()
    {
        try {
            parseAppcast("{\"version\": \"1.1\"}", QUrl(QStringLiteral("https://updates.veldspar.example/appcast.xml")));
            QFAIL("the feed was accepted");
        } catch (const Error &error) {
            QVERIFY2(error.localizedDescription().startsWith(
                         QStringLiteral("The update feed at https://updates.veldspar.example/appcast.xml is not valid XML: ")),
                     qPrintable(error.localizedDescription()));
            QVERIFY(error.localizedDescription().contains(QStringLiteral("(line 1, column")));
        }
    }

    // -----------------------------------------------------------------------------------
    // Choosing

    void choiceTakesTheNewestEligibleLinuxItem()
    {
        const QString url = QStringLiteral("https://a.example/v.tar.xz");
        const QByteArray xml = feedXml({
            feedItem(QStringLiteral("1.1"), url, 5, QStringLiteral("s")),
            feedItem(QStringLiteral("3.0"), url, 5, QStringLiteral("s"), {}, QString()),
            feedItem(QStringLiteral("2.9"), url, 5, QStringLiteral("s"), {}, QStringLiteral("windows")),
            feedItem(QStringLiteral("2.8"), url, 5, QStringLiteral("s"), QStringLiteral("<sparkle:channel>beta</sparkle:channel>")),
            feedItem(QStringLiteral("2.7"), url, 5, QStringLiteral("s"),
                     QStringLiteral("<sparkle:minimumSystemVersion>7.1</sparkle:minimumSystemVersion>")),
            feedItem(QStringLiteral("2.6"), url, 5, QStringLiteral("s"),
                     QStringLiteral("<sparkle:maximumSystemVersion>5.4</sparkle:maximumSystemVersion>")),
            feedItem(QStringLiteral("1.2"), url, 5, QStringLiteral("s"),
                     QStringLiteral("<sparkle:minimumSystemVersion>6.0</sparkle:minimumSystemVersion>"
                                    "<sparkle:maximumSystemVersion>6.9</sparkle:maximumSystemVersion>")),
            feedItem(QStringLiteral("0.9"), url, 5, QStringLiteral("s")),
            feedItem(QStringLiteral("1.2.0"), url, 5, QStringLiteral("s")),
        });
        CheckContext context;
        context.currentVersion = QStringLiteral("1.0");
        context.systemVersion = QStringLiteral("6.1.0-18-amd64");
        context.now = QDateTime::currentDateTimeUtc();
        const UpdateChoice choice = chooseUpdate(parseAppcast(xml, {}), context);
        QVERIFY(choice.item);
        QCOMPARE(choice.item->version, QStringLiteral("1.2"));
        QStringList explanations;
        for (const ItemVerdict &verdict : choice.verdicts)
            explanations << verdict.label + QStringLiteral(": ") + verdict.explanation;
        QCOMPARE(explanations,
                 (QStringList{
                     QStringLiteral("1.1: eligible, but 1.2 is newer"),
                     QStringLiteral("3.0: is not for Linux: it has no sparkle:os, so it is meant for macOS"),
                     QStringLiteral("2.9: is not for Linux: its sparkle:os is \u201cwindows\u201d"),
                     QStringLiteral("2.8: is on the channel \u201c""beta\u201d, which this app does not follow"),
                     QStringLiteral("2.7: needs system version 7.1 or later; this system is 6.1.0-18-amd64"),
                     QStringLiteral("2.6: is only for system versions up to 5.4; this system is 6.1.0-18-amd64"),
                     QStringLiteral("1.2: offered: the newest eligible version newer than 1.0"),
                     QStringLiteral("0.9: is not newer than the current version 1.0"),
                     QStringLiteral("1.2.0: eligible, but an earlier item has the same version"),
                 }));
    }

    void skippedVersionsAndPhasedRolloutHoldBackScheduledChecksOnly()
    {
        const QString url = QStringLiteral("https://a.example/v.tar.xz");
        const QDateTime published = QDateTime::currentDateTimeUtc().addSecs(-3600);
        const QByteArray xml = feedXml({
            feedItem(QStringLiteral("1.1"), url, 5, QStringLiteral("s")),
            feedItem(QStringLiteral("1.2"), url, 5, QStringLiteral("s"),
                     QStringLiteral("<pubDate>%1</pubDate><sparkle:phasedRolloutInterval>86400</sparkle:phasedRolloutInterval>")
                         .arg(published.toString(Qt::RFC2822Date))),
        });
        const Appcast appcast = parseAppcast(xml, {});
        CheckContext context;
        context.currentVersion = QStringLiteral("1.0");
        context.systemVersion = QStringLiteral("6.1");
        context.now = QDateTime::currentDateTimeUtc();
        context.skippedVersion = QStringLiteral("1.1");
        context.rolloutGroup = 3;

        // A user-initiated check sees everything.
        QCOMPARE(chooseUpdate(appcast, context).item->version, QStringLiteral("1.2"));

        // A scheduled one passes over the skipped version and waits for the rollout.
        context.kind = CheckKind::Scheduled;
        const UpdateChoice scheduled = chooseUpdate(appcast, context);
        QVERIFY(!scheduled.item);
        QCOMPARE(scheduled.verdicts.at(0).explanation, QStringLiteral("was skipped by the user, and scheduled checks pass over it"));
        QCOMPARE(scheduled.verdicts.at(1).explanation,
                 QStringLiteral("is being rolled out in phases and reaches this installation (group 4 of 7) on %1")
                     .arg(published.addSecs(3 * 86400).toString(Qt::ISODate)));
        QCOMPARE(scheduled.summary, QStringLiteral("nothing: no item of the feed is eligible and newer than 1.0"));

        // The first group gets it at once.
        context.rolloutGroup = 0;
        QCOMPARE(chooseUpdate(appcast, context).item->version, QStringLiteral("1.2"));
    }

    void criticalUpdatesAreNeverHeldBack()
    {
        const QByteArray xml = feedXml({feedItem(QStringLiteral("1.1"), QStringLiteral("https://a.example/v"), 5, QStringLiteral("s"),
                                                 QStringLiteral("<sparkle:criticalUpdate/>"))});
        CheckContext context;
        context.currentVersion = QStringLiteral("1.0");
        context.kind = CheckKind::Scheduled;
        context.skippedVersion = QStringLiteral("1.1");
        const UpdateChoice choice = chooseUpdate(parseAppcast(xml, {}), context);
        QVERIFY(choice.item);
        QCOMPARE(choice.summary, QStringLiteral("1.1: the newest eligible version newer than 1.0, a critical update"));
    }

    void progressReadsXOfY()
    {
        QCOMPARE(formatByteProgress(1200000, 3400000), QStringLiteral("1.2 MB of 3.4 MB"));
        QCOMPARE(formatByteProgress(512, -1), QStringLiteral("512 bytes"));
    }

    // -----------------------------------------------------------------------------------
    // The updater's state and settings

    void canCheckIsFalseBeforeStartAndWhileChecking()
    {
        install(installedRecipe());
        Route held;
        held.body = feedXml({});
        held.contentType = "application/rss+xml";
        held.hold = true;
        m_server->serve(QStringLiteral("/appcast.xml"), held);
        RecordingDriver driver;
        Updater updater(&driver, nullptr, nullptr, m_bundle);
        QSignalSpy changes(&updater, &Updater::canCheckForUpdatesChanged);
        QVERIFY(!updater.canCheckForUpdates());
        updater.start();
        QVERIFY(updater.canCheckForUpdates());
        updater.checkForUpdates();
        QVERIFY(!updater.canCheckForUpdates());
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
        QVERIFY(!updater.canCheckForUpdates());
        m_server->release();
        QTRY_VERIFY(updater.canCheckForUpdates());
        QCOMPARE(changes.count(), 3);
        QCOMPARE(changes.at(0).at(0).toBool(), true);
        QCOMPARE(changes.at(1).at(0).toBool(), false);
        QCOMPARE(changes.at(2).at(0).toBool(), true);
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("up to date")}));
        QCOMPARE(driver.upToDate->title, QStringLiteral("You\u2019re up to date!"));
        QCOMPARE(driver.upToDate->detail, QStringLiteral("Veldspar 1.0 is currently the newest version available."));
    }

    void cancellingACheckEndsItQuietly()
    {
        install(installedRecipe());
        Route held;
        held.body = feedXml({});
        held.hold = true;
        m_server->serve(QStringLiteral("/appcast.xml"), held);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QSignalSpy finished(updater.get(), &Updater::sessionFinished);
        updater->checkForUpdates();
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
        driver.cancel();
        QTRY_COMPARE(finished.count(), 1);
        QVERIFY(updater->canCheckForUpdates());
        QVERIFY(!updater->lastError());
        m_server->release();
        QTest::qWait(200);
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("dismiss")}));
    }

    // A server that leaves a check hanging ends it after the time-out with a message that says
    // so, and "Check for Updates…" is enabled again. The time-outs are shortened from 30 s to
    // 0.3 s here, so that each case takes a moment instead of half a minute.
    void checkEndsWhenTheServerGoesSilent_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("reason");
        QTest::newRow("accepts and never answers") << QStringLiteral("silent") << QStringLiteral("the server sent nothing for 0.3 seconds");
        QTest::newRow("answers a few bytes, then stalls") << QStringLiteral("stalls") << QStringLiteral("the server sent nothing for 0.3 seconds");
        QTest::newRow("never takes the connection") << QStringLiteral("full") << QStringLiteral("no connection to the server within 0.3 seconds");
    }

    void checkEndsWhenTheServerGoesSilent()
    {
        QFETCH(QString, server);
        QFETCH(QString, reason);
        shortenFetchTimeouts();
        BundleRecipe recipe = installedRecipe();
        Route feed;
        feed.body = feedXml({});
        feed.contentType = "application/rss+xml";
        FullListener full;
        if (server == u"silent") {
            feed.hold = true;
        } else if (server == u"stalls") {
            feed.stallAfter = 10;
        } else {
            if (!full.dropsConnections())
                QSKIP("this system answers connections beyond a listener's queue");
            recipe.feedUrl = QStringLiteral("http://127.0.0.1:%1/appcast.xml").arg(full.port());
        }
        m_server->serve(QStringLiteral("/appcast.xml"), feed);
        install(recipe);

        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        EmberlaneUpdateCommands commands(updates);
        updates.loadEngine();
        QTRY_VERIFY(commands.checkForUpdates()->isEnabled());
        QList<bool> enabled;
        connect(&updates, &EmberlaneUpdates::canCheckChanged, this, [&] { enabled << commands.checkForUpdates()->isEnabled(); });
        QSignalSpy finished(&updates.updater(), &Updater::sessionFinished);
        commands.checkForUpdates()->trigger();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 10000);
        QTRY_VERIFY(commands.checkForUpdates()->isEnabled());
        QCOMPARE(enabled.first(), false);
        QVERIFY2(driver.error, qPrintable(driver.events.join(u',')));
        QCOMPARE(driver.error->localizedDescription(),
                 QStringLiteral("The update feed could not be downloaded from %1: %2.").arg(recipe.feedUrl, reason));
        QCOMPARE(driver.error->code(), int(UpdateErrorCode::FeedUnavailable));
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("error")}));
        m_server->release();
    }

    // Every fetch has the time-outs: a download that stops half-way fails, and nothing of it stays.
    void downloadThatStallsFails()
    {
        shortenFetchTimeouts();
        offerUpdateWhoseDownloadStalls();
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        const QString archiveUrl = m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz"));
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        checkAndWait(*updater);
        QVERIFY2(driver.error, qPrintable(driver.events.join(u',')));
        const QString message = driver.error->localizedDescription();
        const QRegularExpression expected(QStringLiteral("^The update 1\\.1 could not be downloaded from %1: the server sent "
                                                         "nothing for 0\\.3 seconds \\(received \\d+ of \\d+ bytes\\)\\.$")
                                              .arg(QRegularExpression::escape(archiveUrl)));
        QVERIFY2(expected.match(message).hasMatch(), qPrintable(message));
        QCOMPARE(driver.error->code(), int(UpdateErrorCode::DownloadFailed));
        QVERIFY(updater->canCheckForUpdates());
        QTRY_COMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        expectUntouched(before);
        m_server->release();
    }

    void automaticChecksArePersisted()
    {
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = true;
        install(recipe);
        RecordingDriver driver;
        {
            auto updater = startedUpdater(driver);
            QVERIFY(updater->automaticallyChecksForUpdates());
            QSignalSpy changes(updater.get(), &Updater::automaticallyChecksForUpdatesChanged);
            updater->setAutomaticallyChecksForUpdates(false);
            QCOMPARE(changes.count(), 1);
            QCOMPARE(changes.at(0).at(0).toBool(), false);
            QVERIFY(!updater->automaticallyChecksForUpdates());
            QVERIFY(!updater->nextScheduledCheck().isValid());
        }
        const QString store = QDir::homePath() + QStringLiteral("/.config/org.kestrum.Veldspar.configure.conf");
        QVERIFY(get(store).contains("SUEnableAutomaticChecks=false"));
        auto again = startedUpdater(driver);
        QVERIFY(!again->automaticallyChecksForUpdates()); // the user's choice beats Info.plist
        QVERIFY(!driver.events.contains(QStringLiteral("permission")));
    }

    void secondLaunchAsksWhetherToCheckAutomatically()
    {
        install(installedRecipe()); // Info.plist leaves SUEnableAutomaticChecks open
        RecordingDriver driver;
        driver.permissionAnswer = true;
        {
            auto first = startedUpdater(driver);
            QTest::qWait(100);
            QVERIFY(driver.events.isEmpty()); // the first launch does not ask
            QVERIFY(!first->automaticallyChecksForUpdates());
        }
        serveFeed({});
        UpdateUserSettings::startNewRunForTesting();
        auto second = startedUpdater(driver);
        QSignalSpy changes(second.get(), &Updater::automaticallyChecksForUpdatesChanged);
        QTRY_COMPARE(driver.events, QStringList{QStringLiteral("permission")});
        QTRY_COMPARE(changes.count(), 1);
        QVERIFY(second->automaticallyChecksForUpdates());
        QCOMPARE(QSettings(UpdateUserSettings::filePath(), QSettings::IniFormat).value(QStringLiteral("SUEnableAutomaticChecks")).toBool(), true);
        // Never checked before: the first scheduled check is due at once, and is silent.
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
        QTest::qWait(200);
        QCOMPARE(driver.events, QStringList{QStringLiteral("permission")});
        second.reset();
        UpdateUserSettings::startNewRunForTesting();
        auto third = startedUpdater(driver);
        QTest::qWait(100);
        QCOMPARE(driver.events, QStringList{QStringLiteral("permission")}); // asked once only
    }

    // The app marks the launch without the engine; an engine the user loads later in that same
    // first run does not take it for the second launch.
    void anEngineLoadedLateInTheFirstRunDoesNotAsk()
    {
        install(installedRecipe()); // Info.plist leaves SUEnableAutomaticChecks open
        serveFeed({});
        RecordingDriver driver;
        driver.offerAnswer = UpdateAnswer::RemindLater;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.loadEngineWhenDue(); // as the app does once its window is up
        QVERIFY(UpdateUserSettings::hasLaunchedBefore());
        QVERIFY(!updates.engineLoaded());
        updates.check();
        QVERIFY(updates.engineLoaded());
        QTRY_VERIFY_WITH_TIMEOUT(driver.events.contains(QStringLiteral("up to date")), 10000);
        QTest::qWait(100);
        QCOMPARE(driver.events, QStringList({QStringLiteral("checking"), QStringLiteral("up to date")}));
    }

    void scheduledCheckFiresAtLastCheckPlusInterval()
    {
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = true;
        install(recipe);
        serveFeed({});
        const QDateTime recent = QDateTime::currentDateTimeUtc().addSecs(-10);
        UpdateUserSettings::setLastCheckTime(recent);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QCOMPARE(updater->updateCheckInterval(), 86400);
        QCOMPARE(updater->nextScheduledCheck().toSecsSinceEpoch(), recent.addSecs(86400).toSecsSinceEpoch());
        QTest::qWait(300);
        QCOMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 0);

        // Overdue: at once, and silent when nothing is new.
        updater.reset();
        UpdateUserSettings::setLastCheckTime(QDateTime::currentDateTimeUtc().addSecs(-86400 - 60));
        updater = startedUpdater(driver);
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
        QTRY_VERIFY(updater->lastUpdateCheckDate() > recent);
        QTRY_VERIFY(updater->nextScheduledCheck() > QDateTime::currentDateTimeUtc().addSecs(86000));
        QVERIFY(driver.events.isEmpty());

        // An interval of 0 means never.
        updater.reset();
        UpdateUserSettings::setLastCheckTime(QDateTime::currentDateTimeUtc().addSecs(-86400 * 30));
        UpdateUserSettings::setCheckInterval(0);
        updater = startedUpdater(driver);
        QVERIFY(!updater->nextScheduledCheck().isValid());
        QTest::qWait(300);
        QCOMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
    }

    // A scheduled check that fails (here: the server never answers) ends quietly, and the
    // next one comes an interval later. The time-outs are shortened from 30 s to 0.3 s.
    void failedScheduledCheckIsRetriedAtTheNextInterval()
    {
        shortenFetchTimeouts();
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = true;
        install(recipe);
        Route silent;
        silent.hold = true;
        m_server->serve(QStringLiteral("/appcast.xml"), silent);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QSignalSpy finished(updater.get(), &Updater::sessionFinished);
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1); // never checked: due at once
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 10000);
        QVERIFY(updater->lastError());
        QCOMPARE(updater->lastError()->localizedDescription(),
                 QStringLiteral("The update feed could not be downloaded from %1: the server sent nothing for 0.3 seconds.")
                     .arg(recipe.feedUrl));
        QCOMPARE(driver.events, QStringList{QStringLiteral("dismiss")}); // scheduled: silent
        QVERIFY(updater->canCheckForUpdates());
        QCOMPARE(updater->nextScheduledCheck().toSecsSinceEpoch(),
                 updater->lastUpdateCheckDate().addSecs(updater->updateCheckInterval()).toSecsSinceEpoch());

        // An interval later (the last check moved back by one), the check comes again.
        UpdateUserSettings::setLastCheckTime(QDateTime::currentDateTimeUtc().addSecs(-updater->updateCheckInterval() - 1));
        updater->setUpdateCheckInterval(updater->updateCheckInterval());
        QTRY_COMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 2);
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 2, 10000);
        QVERIFY(updater->nextScheduledCheck() > QDateTime::currentDateTimeUtc().addSecs(updater->updateCheckInterval() - 60));
        m_server->release();
    }

    void skippedVersionIsPassedOverByScheduledChecksUntilTheUserChecks()
    {
        install(installedRecipe());
        publishGoodUpdate();
        RecordingDriver driver;
        driver.offerAnswer = UpdateAnswer::Skip;
        auto updater = startedUpdater(driver);
        checkAndWait(*updater);
        QCOMPARE(updater->skippedVersion(), QStringLiteral("1.1"));
        QVERIFY(get(UpdateUserSettings::filePath()).contains("SUSkippedVersion=1.1"));

        driver.events.clear();
        QSignalSpy finished(updater.get(), &Updater::sessionFinished);
        updater->checkForUpdatesInBackground();
        QTRY_COMPARE(finished.count(), 1);
        QVERIFY(driver.events.isEmpty());

        driver.offerAnswer = UpdateAnswer::RemindLater;
        checkAndWait(*updater);
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("found 1.1"), QStringLiteral("dismiss")}));
        QVERIFY(updater->skippedVersion().isEmpty());
    }

    void releaseNotesAreFetchedFromTheirLink()
    {
        install(installedRecipe());
        const QByteArray archive = publish([&] {
            BundleRecipe next = installedRecipe();
            next.version = QStringLiteral("1.1");
            return next;
        }(), QStringLiteral("/Veldspar-1.1.tar.xz"));
        serveFeed({feedItem(QStringLiteral("1.1"), QStringLiteral("Veldspar-1.1.tar.xz"), archive.size(), signature(archive),
                            QStringLiteral("<sparkle:releaseNotesLink>notes/1.1.txt</sparkle:releaseNotesLink>"))});
        m_server->serve(QStringLiteral("/notes/1.1.txt"), "Faster discovery.\n", "text/plain; charset=utf-8");
        RecordingDriver driver;
        driver.offerAnswer.reset();
        auto updater = startedUpdater(driver);
        updater->checkForUpdates();
        QTRY_VERIFY(driver.notes.has_value());
        QCOMPARE(driver.notes->text, QStringLiteral("Faster discovery.\n"));
        QCOMPARE(driver.notes->format, NotesFormat::PlainText);
        QCOMPARE(driver.notes->url, QUrl(m_server->url(QStringLiteral("/notes/1.1.txt"))));
        // The relative enclosure link was resolved against the feed.
        QCOMPARE(driver.offer->item.enclosure->url, QUrl(m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz"))));
        QVERIFY(updater->canCheckForUpdates()); // waiting for the user, nothing runs
        updater->checkForUpdates();
        QTRY_COMPARE(driver.events.last(), QStringLiteral("focus"));
        driver.offerReply(UpdateAnswer::RemindLater);
        QTRY_VERIFY(!updater->sessionInProgress());
    }

    // -----------------------------------------------------------------------------------
    // A whole update

    void wholeUpdateFromOneVersionToTheNext()
    {
        install(installedRecipe());
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        next.extraFile = randomBytes(300000);
        const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
        serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")), archive.size(),
                            signature(archive))});
        const QMap<QString, QByteArray> published = snapshot(m_lastRelease);

        RecordingDriver driver;
        GateDelegate gate;
        auto updater = startedUpdater(driver, &gate);

        // While an operation runs, the found update is refused with the gate's words.
        gate.busy = true;
        checkAndWait(*updater);
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("error")}));
        QCOMPARE(driver.error->domain(), QStringLiteral("com.emberlane.updates"));
        QCOMPARE(driver.error->code(), 1);
        QCOMPARE(driver.error->localizedDescription(), gateText);
        QCOMPARE(m_server->requestsFor(QStringLiteral("/Veldspar-1.1.tar.xz")), 0);

        // Once it is over, the update is found, downloaded, verified and staged; the relaunch
        // waits while another operation runs.
        gate.busy = false;
        driver.events.clear();
        driver.readyAnswer.reset();
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(driver.events.contains(QStringLiteral("ready")), 20000);
        QCOMPARE(driver.events, (QStringList{QStringLiteral("checking"), QStringLiteral("found 1.1"),
                                             QStringLiteral("downloading"), QStringLiteral("unpacking"), QStringLiteral("ready")}));
        QVERIFY(!driver.progress.isEmpty());
        QCOMPARE(driver.progress.last(), (std::pair<qint64, qint64>(archive.size(), archive.size())));
        QVERIFY(updater->canCheckForUpdates());
        QCOMPARE(get(m_bundle + QStringLiteral("/Veldspar")), QByteArray("#!/bin/sh\necho Veldspar 1.0\n"));

        gate.busy = true;
        driver.readyReply(InstallAnswer::InstallAndRelaunch);
        QTRY_COMPARE(gate.postponeQuestions, 1);
        QCOMPARE(gate.alerts, QStringList{gateText + QStringLiteral(" The update will continue when it is safe to restart.")});
        QTest::qWait(1500);
        QVERIFY(m_relaunches.isEmpty());
        QCOMPARE(get(m_bundle + QStringLiteral("/Veldspar")), QByteArray("#!/bin/sh\necho Veldspar 1.0\n"));

        gate.busy = false;
        QTRY_COMPARE_WITH_TIMEOUT(m_relaunches.size(), 1, 3000);
        QCOMPARE(m_relaunches.at(0).program, m_bundle + QStringLiteral("/Veldspar"));
        QCOMPARE(m_relaunches.at(0).arguments, QStringList());
        QCOMPARE(m_relaunches.at(0).workingDirectory, m_bundle);
        QCOMPARE(gate.postponeQuestions, 1);

        // The 1.1 bundle, exactly as published, is in place; the old one and every staging
        // folder are gone.
        QCOMPARE(snapshot(m_bundle), published);
        QCOMPARE(readBundleInfo(m_bundle).version, QStringLiteral("1.1"));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        QCOMPARE(driver.events.mid(5), (QStringList{QStringLiteral("installing"), QStringLiteral("dismiss")}));
        QVERIFY(!updater->sessionInProgress());
        QTest::qWait(200);
        QCOMPARE(m_relaunches.size(), 1);
    }

    void postponedUpdateIsInstalledAtQuitWithoutRelaunch()
    {
        install(installedRecipe());
        publishGoodUpdate();
        RecordingDriver driver;
        GateDelegate gate;
        auto updater = startedUpdater(driver, &gate);
        driver.readyAnswer.reset();
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(driver.readyReply != nullptr, 20000);
        gate.busy = true;
        driver.readyReply(InstallAnswer::InstallAndRelaunch);
        QTRY_COMPARE(gate.postponeQuestions, 1);
        QCOMPARE(readBundleInfo(m_bundle).version, QStringLiteral("1.0"));

        updater->installUpdateOnQuit();
        QCOMPARE(readBundleInfo(m_bundle).version, QStringLiteral("1.1"));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        QVERIFY(!updater->sessionInProgress());

        // The gate opening later changes nothing any more.
        gate.busy = false;
        QTest::qWait(1500);
        QVERIFY(m_relaunches.isEmpty());
    }

    void updateLeftForLaterIsInstalledAtQuit()
    {
        install(installedRecipe());
        publishGoodUpdate();
        RecordingDriver driver;
        driver.readyAnswer = InstallAnswer::Later;
        auto updater = startedUpdater(driver);
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(driver.events.contains(QStringLiteral("ready")), 20000);
        QTest::qWait(100);
        QVERIFY(updater->sessionInProgress());
        QCOMPARE(readBundleInfo(m_bundle).version, QStringLiteral("1.0"));

        // Asking again shows the staged update again instead of downloading it anew.
        driver.readyAnswer.reset();
        updater->checkForUpdates();
        QCOMPARE(driver.events.count(QStringLiteral("ready")), 2);
        QCOMPARE(m_server->requestsFor(QStringLiteral("/Veldspar-1.1.tar.xz")), 1);

        updater->installUpdateOnQuit();
        QCOMPARE(readBundleInfo(m_bundle).version, QStringLiteral("1.1"));
        QVERIFY(m_relaunches.isEmpty());
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    // An update is never installed while an operation runs, not even at quit; the staged
    // copy goes, and the next check offers the update again.
    void stagedUpdateIsNotInstalledAtQuitWhileAnOperationRuns()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        publishGoodUpdate();
        RecordingDriver driver;
        driver.readyAnswer = InstallAnswer::Later;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.check();
        QTRY_VERIFY_WITH_TIMEOUT(driver.events.contains(QStringLiteral("ready")), 20000);
        QVERIFY(updates.updater().sessionInProgress());
        updates.blockedReason = [] { return std::optional<QString>(gateText); };

        updates.updater().installUpdateOnQuit();
        QVERIFY(!updates.updater().sessionInProgress());
        expectUntouched(before);
    }

    void quitDuringADownloadLeavesNothingBehind()
    {
        offerUpdateWhoseDownloadStalls();
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(!driver.progress.isEmpty(), 20000);
        QCOMPARE(besideBundle().size(), 2); // the bundle and its staging folder

        updater->installUpdateOnQuit();
        QVERIFY(!updater->sessionInProgress());
        QTRY_COMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        expectUntouched(before);
        m_server->release();
    }

    void cancellingTheDownloadLeavesNothingBehind()
    {
        offerUpdateWhoseDownloadStalls();
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        RecordingDriver driver;
        driver.cancelDownloadAtFirstProgress = true;
        auto updater = startedUpdater(driver);
        checkAndWait(*updater);
        QCOMPARE(driver.events.last(), QStringLiteral("dismiss"));
        QVERIFY(!driver.events.contains(QStringLiteral("ready")));
        QVERIFY(!updater->lastError());
        QVERIFY(updater->canCheckForUpdates());
        QTRY_COMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        expectUntouched(before);
    }

    // Staging folders that a quit or a crash left behind go at the next start; nothing else
    // beside the bundle does, nor the staging folder of an update under way.
    void abandonedStagingFoldersAreRemovedAtStart()
    {
        install(installedRecipe());
        const QString outside = root() + QStringLiteral("/outside");
        put(outside + QStringLiteral("/kept"), "x");
        for (const char *name : {".Veldspar.app-update-a1B2c3", ".Veldspar.app-update-ZZZZZZ"}) {
            const QString folder = m_applications + u'/' + QString::fromLatin1(name);
            put(folder + QStringLiteral("/download"), randomBytes(1000));
            writeBundle(folder + QStringLiteral("/unpacked/Veldspar.app"), installedRecipe());
            QVERIFY(QFile::setPermissions(folder + QStringLiteral("/unpacked"), QFile::ReadOwner | QFile::ExeOwner));
        }
        const QStringList others{QStringLiteral(".Other.app-update-a1B2c3"), QStringLiteral(".Veldspar.app-update-a1B2c"),
                                 QStringLiteral(".Veldspar.app-update-a1B2c34"), QStringLiteral(".Veldspar.app-previous"),
                                 QStringLiteral("Veldspar.app-update-a1B2c3")};
        for (const QString &name : others)
            put(m_applications + u'/' + name + QStringLiteral("/kept"), "x");
        put(m_applications + QStringLiteral("/.Veldspar.app-update-file01"), "a file, not a folder");
        QVERIFY(QFile::link(outside, m_applications + QStringLiteral("/.Veldspar.app-update-link01")));
        const std::shared_ptr<StagingFolder> inUse = StagingFolder::create(m_bundle);
        put(inUse->archivePath(), "partial");

        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QStringList expected = others + QStringList{QStringLiteral("Veldspar.app"), QStringLiteral(".Veldspar.app-update-file01"),
                                                    QStringLiteral(".Veldspar.app-update-link01"),
                                                    QFileInfo(inUse->path()).fileName()};
        expected.sort();
        QStringList found = besideBundle();
        found.sort();
        QCOMPARE(found, expected);
        QCOMPARE(get(inUse->archivePath()), QByteArray("partial"));
        QCOMPARE(get(outside + QStringLiteral("/kept")), QByteArray("x"));
    }

    void abandonedStagingFoldersAreRemovedAtUninstall()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp running(world);
        QVERIFY(running.waitForServiceStatus());
        // Left by an earlier run after this one started.
        const QString besideApp = QFileInfo(world.bundle()).absolutePath();
        const QString abandoned = besideApp + QStringLiteral("/.Veldspar.app-update-q1W2e3");
        const QString other = besideApp + QStringLiteral("/.Veldspar.app-update-notours");
        put(abandoned + QStringLiteral("/download"), "partial");
        put(other + QStringLiteral("/kept"), "x");
        DialogAnswerer answers;
        const int code = runEventLoop([&] { running.click(running.button(QStringLiteral("Uninstall"))); });
        QCOMPARE(code, 0);
        QVERIFY(!QFileInfo::exists(world.bundle()));
        QVERIFY(!QFileInfo::exists(abandoned));
        QCOMPARE(get(other + QStringLiteral("/kept")), QByteArray("x"));
    }

    // -----------------------------------------------------------------------------------
    // Refusals: each leaves the installed bundle byte for byte as it was.

    void refusedUpdates_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("tampered archive") << QStringLiteral("tampered");
        QTest::newRow("signature by another key") << QStringLiteral("other key");
        QTest::newRow("wrong length") << QStringLiteral("length");
        QTest::newRow("downgrade") << QStringLiteral("downgrade");
        QTest::newRow("different bundle identifier") << QStringLiteral("identifier");
        QTest::newRow("file link") << QStringLiteral("file link");
        QTest::newRow("feed that is not XML") << QStringLiteral("not xml");
        QTest::newRow("server closes mid-download") << QStringLiteral("closed");
        QTest::newRow("missing signature") << QStringLiteral("no signature");
        QTest::newRow("malformed signature") << QStringLiteral("malformed signature");
        QTest::newRow("archive without Veldspar.app") << QStringLiteral("no bundle");
        QTest::newRow("non-loopback http download") << QStringLiteral("http download");
        QTest::newRow("redirect to plain http") << QStringLiteral("redirect");
    }

    void refusedUpdates()
    {
        QFETCH(QString, scenario);
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        const QString archiveUrl = m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz"));
        const QString feedUrl = m_server->url(QStringLiteral("/appcast.xml"));
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        next.extraFile = randomBytes(200000);
        QString expected;
        bool prefixOnly = false;

        if (scenario == u"tampered") {
            QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            const QString goodSignature = signature(archive);
            archive[archive.size() / 2] = char(archive.at(archive.size() / 2) ^ 0x01);
            m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), archive);
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), goodSignature)});
            expected = QStringLiteral("The download of version 1.1 does not match its EdDSA signature: it was changed after "
                                      "signing, or signed with a key other than this app's SUPublicEDKey.");
        } else if (scenario == u"other key") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), signature(archive, generateKeyPair().seed))});
            expected = QStringLiteral("The download of version 1.1 does not match its EdDSA signature: it was changed after "
                                      "signing, or signed with a key other than this app's SUPublicEDKey.");
        } else if (scenario == u"length") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size() - 100, signature(archive))});
            expected = QStringLiteral("The feed states that the update 1.1 is %1 bytes long, but the server sends %2 bytes.")
                           .arg(archive.size() - 100)
                           .arg(archive.size());
        } else if (scenario == u"downgrade") {
            next.version = QStringLiteral("0.9");
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), signature(archive))});
            expected = QStringLiteral("The update's version 0.9 (CFBundleVersion) is not newer than the installed version 1.0.");
        } else if (scenario == u"identifier") {
            next.identifier = QStringLiteral("org.example.Other");
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), signature(archive))});
            expected = QStringLiteral("The update is for the application org.example.Other, not org.kestrum.Veldspar.configure "
                                      "(CFBundleIdentifier).");
        } else if (scenario == u"file link") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            put(root() + QStringLiteral("/local.tar.xz"), archive);
            const QString fileUrl = QUrl::fromLocalFile(root() + QStringLiteral("/local.tar.xz")).toString();
            serveFeed({feedItem(QStringLiteral("1.1"), fileUrl, archive.size(), signature(archive))});
            expected = QStringLiteral("The update feed at %1 is not valid: item 1.1 links to %2; only http and https links "
                                      "are allowed.")
                           .arg(feedUrl, fileUrl);
        } else if (scenario == u"not xml") {
            m_server->serve(QStringLiteral("/appcast.xml"), "Service temporarily unavailable <b>", "text/html");
            expected = QStringLiteral("The update feed at %1 is not valid XML: ").arg(feedUrl);
            prefixOnly = true;
        } else if (scenario == u"closed") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            Route cut;
            cut.body = archive;
            cut.cutAfter = archive.size() / 2;
            m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), cut);
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), signature(archive))});
            expected = QStringLiteral("The update 1.1 could not be downloaded from %1: ").arg(archiveUrl);
            prefixOnly = true;
        } else if (scenario == u"no signature") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), QString())});
            expected = QStringLiteral("The feed gives no EdDSA signature (sparkle:edSignature) for version 1.1, so it cannot "
                                      "be verified.");
        } else if (scenario == u"malformed signature") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), QStringLiteral("c2hvcnQ="))});
            expected = QStringLiteral("The EdDSA signature (sparkle:edSignature) the feed gives for version 1.1 is malformed: "
                                      "an Ed25519 signature has 64 bytes, this one has 5.");
        } else if (scenario == u"no bundle") {
            const QString archivePath = root() + QStringLiteral("/odd.tar.xz");
            writeArchive({ArchiveEntry{QStringLiteral("Other.app/Veldspar"), ArchiveEntry::Kind::File, 0755, "x", {}, 0}}, archivePath);
            const QByteArray archive = get(archivePath);
            m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), archive);
            serveFeed({feedItem(QStringLiteral("1.1"), archiveUrl, archive.size(), signature(archive))});
            expected = QStringLiteral("The update archive does not contain the folder Veldspar.app.");
        } else if (scenario == u"http download") {
            serveFeed({feedItem(QStringLiteral("1.1"), QStringLiteral("http://updates.veldspar.example/Veldspar-1.1.tar.xz"),
                                1000, signature("x"))});
            expected = QStringLiteral("Veldspar refuses to download the update 1.1: "
                                      "http://updates.veldspar.example/Veldspar-1.1.tar.xz is plain http; updates are only "
                                      "fetched over https.");
        } else if (scenario == u"redirect") {
            const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
            Route redirect;
            redirect.status = 302;
            redirect.location = "http://updates.veldspar.example/Veldspar-1.1.tar.xz";
            m_server->serve(QStringLiteral("/moved.tar.xz"), redirect);
            serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/moved.tar.xz")), archive.size(), signature(archive))});
            expected = QStringLiteral("Veldspar refuses to download the update 1.1: the server redirects to "
                                      "http://updates.veldspar.example/Veldspar-1.1.tar.xz, which is plain http; updates are "
                                      "only fetched over https.");
        }

        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        checkAndWait(*updater);
        QVERIFY2(driver.error.has_value(), qPrintable(driver.events.join(u',')));
        const QString message = driver.error->localizedDescription();
        if (prefixOnly)
            QVERIFY2(message.startsWith(expected), qPrintable(message));
        else
            QCOMPARE(message, expected);
        QCOMPARE(driver.error->domain(), updateErrorDomain);
        QCOMPARE(updater->lastError()->localizedDescription(), message);
        QVERIFY(!driver.events.contains(QStringLiteral("ready")));
        QVERIFY(updater->canCheckForUpdates());
        expectUntouched(before);
    }

    void nonLoopbackHttpFeedIsRefused()
    {
        BundleRecipe recipe = installedRecipe();
        recipe.feedUrl = QStringLiteral("http://updates.veldspar.example/appcast.xml");
        install(recipe);
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        RecordingDriver driver;
        Updater updater(&driver, nullptr, nullptr, m_bundle);
        try {
            updater.start();
            QFAIL("an http feed was accepted");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(),
                     QStringLiteral("The update feed SUFeedURL in Info.plist is refused: "
                                    "http://updates.veldspar.example/appcast.xml is plain http; updates are only fetched "
                                    "over https."));
            QCOMPARE(error.code(), int(UpdateErrorCode::InsecureLink));
        }
        QVERIFY(!updater.canCheckForUpdates());
        updater.checkForUpdates();
        QTest::qWait(100);
        QVERIFY(driver.events.isEmpty());
        expectUntouched(before);
    }

    void scheduledCheckDropsRefusalsSilently()
    {
        install(installedRecipe());
        m_server->serve(QStringLiteral("/appcast.xml"), "no feed here", "text/plain");
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QSignalSpy finished(updater.get(), &Updater::sessionFinished);
        updater->checkForUpdatesInBackground();
        QTRY_COMPARE(finished.count(), 1);
        QVERIFY(updater->lastError().has_value());
        QCOMPARE(driver.events, QStringList{QStringLiteral("dismiss")});
        QVERIFY(!driver.error);
    }

    // A bogus enclosure of 512 MB is written to disk and verified from there: the process
    // grows by far less than its size, the signature failure is reported and the download
    // goes with the staging folder.
    void hugeDownloadIsVerifiedWithoutHoldingIt()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        const qint64 length = qint64(512) << 20;
        Route huge;
        huge.generated = length;
        m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), huge);
        serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")), length,
                            signature("another file"))});
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        if (!resetPeakResident())
            QSKIP("this system does not let a process measure its peak memory afresh");
        const qint64 baseline = residentKiB("VmRSS");
        QSignalSpy finished(updater.get(), &Updater::sessionFinished);
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 300000);
        const qint64 growth = residentKiB("VmHWM") - baseline;
        qInfo("Peak resident growth during the download and verification of %lld bytes: %lld KiB", length, growth);

        QVERIFY2(driver.error, qPrintable(driver.events.join(u',')));
        QCOMPARE(driver.error->localizedDescription(),
                 QStringLiteral("The download of version 1.1 does not match its EdDSA signature: it was changed after "
                                "signing, or signed with a key other than this app's SUPublicEDKey."));
        QCOMPARE(driver.progress.last(), std::make_pair(length, length));
#if !defined(__SANITIZE_ADDRESS__)
        QVERIFY2(growth <= 32 * 1024, qPrintable(QStringLiteral("grew by %1 KiB").arg(growth)));
#endif
        QTRY_COMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        expectUntouched(before);
    }

    // The download goes to a file only its owner can read, in a folder only its owner can open.
    void downloadIsKeptInAPrivateFile()
    {
        offerUpdateWhoseDownloadStalls();
        const mode_t usual = ::umask(022);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        updater->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(!driver.progress.isEmpty(), 20000);
        ::umask(usual);
        QStringList staging = besideBundle();
        staging.removeOne(QStringLiteral("Veldspar.app"));
        QCOMPARE(staging.size(), 1);
        const QString folder = m_applications + u'/' + staging.first();
        struct stat folderStatus{};
        struct stat fileStatus{};
        QCOMPARE(::lstat(QFile::encodeName(folder).constData(), &folderStatus), 0);
        QCOMPARE(::lstat(QFile::encodeName(folder + QStringLiteral("/download")).constData(), &fileStatus), 0);
        QVERIFY(S_ISDIR(folderStatus.st_mode));
        QVERIFY(S_ISREG(fileStatus.st_mode));
        QCOMPARE(folderStatus.st_mode & 07777, mode_t(0700));
        QCOMPARE(fileStatus.st_mode & 07777, mode_t(0600));
        updater->installUpdateOnQuit();
        QTRY_COMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        m_server->release();
    }

    // The unsigned feed cannot make Veldspar download without bound: a length beyond what an
    // update may be is refused before any byte is fetched.
    void feedLengthBeyondTheLargestUpdateIsRefused()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QByteArray archive = publish(next, QStringLiteral("/Veldspar-1.1.tar.xz"));
        const qint64 claimed = qint64(4) << 30;
        serveFeed({feedItem(QStringLiteral("1.1"), m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")), claimed,
                            signature(archive))});
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        checkAndWait(*updater);
        QVERIFY2(driver.error, qPrintable(driver.events.join(u',')));
        QCOMPARE(driver.error->localizedDescription(),
                 QStringLiteral("The feed states that the update 1.1 is 4294967296 bytes long, more than the 1073741824 "
                                "bytes Veldspar accepts for an update."));
        QCOMPARE(driver.error->code(), int(UpdateErrorCode::LengthMismatch));
        QCOMPARE(m_server->requestsFor(QStringLiteral("/Veldspar-1.1.tar.xz")), 0);
        expectUntouched(before);
    }

    void folderThatIsNotWritableIsReportedAndNothingChanges()
    {
        install(installedRecipe());
        publishGoodUpdate();
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        QVERIFY(QFile::setPermissions(m_applications, QFile::ReadOwner | QFile::ExeOwner));
        {
            // The updater works on this thread until the download would start; root must
            // obey the folder's permissions here like everybody else.
            WithoutFilePermissionOverride asAUser;
            checkAndWait(*updater);
        }
        QVERIFY(QFile::setPermissions(m_applications, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(driver.error);
        QCOMPARE(driver.error->localizedDescription(),
                 QStringLiteral("Veldspar cannot update itself in %1: Permission denied.").arg(m_applications));
        QCOMPARE(driver.error->code(), int(UpdateErrorCode::NotWritable));
        QCOMPARE(m_server->requestsFor(QStringLiteral("/Veldspar-1.1.tar.xz")), 0);
        expectUntouched(before);
    }

    // -----------------------------------------------------------------------------------
    // Unpacking and swapping

    void archiveFormatsUnpack_data()
    {
        QTest::addColumn<ArchiveFormat>("format");
        QTest::newRow("tar.xz") << ArchiveFormat::TarXz;
        QTest::newRow("tar.gz") << ArchiveFormat::TarGz;
        QTest::newRow("zip") << ArchiveFormat::Zip;
    }

    void archiveFormatsUnpack()
    {
        QFETCH(ArchiveFormat, format);
        install(installedRecipe());
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QByteArray archive = publish(next, QStringLiteral("/x"), format);
        const AppcastItem item = parseAppcast(feedXml({feedItem(QStringLiteral("1.1"), QStringLiteral("https://a.example/x"),
                                                                archive.size(), signature(archive))}),
                                              {})
                                     .items.first();
        put(root() + QStringLiteral("/download"), archive);
        const QString staged = stageUpdate(root() + QStringLiteral("/download"), root() + QStringLiteral("/unpacked"), item,
                                           m_keys.publicKey, readBundleInfo(m_bundle));
        QCOMPARE(staged, root() + QStringLiteral("/unpacked/Veldspar.app"));
        QCOMPARE(snapshot(staged), snapshot(m_lastRelease));
        QVERIFY(QFileInfo(staged + QStringLiteral("/Veldspar")).isExecutable());
    }

    // A disk that fills up while the update is unpacked fails the update: no file padded
    // with zeros may pass for a whole one.
    void fullDiskFailsTheUnpacking()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        next.extraFile = QByteArray(1 << 20, 'v'); // a few bytes packed, a megabyte unpacked
        const QByteArray archive = publish(next, QStringLiteral("/x"), ArchiveFormat::TarGz);
        const AppcastItem item = parseAppcast(feedXml({feedItem(QStringLiteral("1.1"), QStringLiteral("https://a.example/x"),
                                                                archive.size(), signature(archive))}),
                                              {})
                                     .items.first();
        put(root() + QStringLiteral("/download"), archive);
        const QString disk = root() + QStringLiteral("/small-disk");
        QVERIFY(QDir().mkpath(disk));
        const BundleInfo installed = readBundleInfo(m_bundle);
        const QByteArray publicKey = m_keys.publicKey;
        const std::optional<QString> outcome = runOnSmallDisk(disk, 256 * 1024, [&]() -> QString {
            try {
                return QStringLiteral("accepted ")
                    + stageUpdate(root() + QStringLiteral("/download"), disk + QStringLiteral("/unpacked"), item, publicKey, installed);
            } catch (const Error &error) {
                return error.localizedDescription();
            }
        });
        if (!outcome)
            QSKIP("this machine gives a test no filesystem of its own");
        QCOMPARE(*outcome, QStringLiteral("The update archive cannot be unpacked: the entry \u201cVeldspar.app/Resources/"
                                          "payload.bin\u201d cannot be written: No space left on device."));
        QCOMPARE(snapshot(m_bundle), before);
    }

    void archivesThatReachOutsideAreRefused_data()
    {
        QTest::addColumn<QList<ArchiveEntry>>("entries");
        QTest::addColumn<QString>("message");
        const ArchiveEntry folder{QStringLiteral("Veldspar.app"), ArchiveEntry::Kind::Folder, 0755, {}, {}, 0};
        QTest::newRow("dot dot") << QList<ArchiveEntry>{folder, {QStringLiteral("Veldspar.app/../../escaped"), ArchiveEntry::Kind::File, 0644, "x", {}, 0}}
                                 << QStringLiteral("The update archive cannot be unpacked: the entry \u201cVeldspar.app/../../escaped\u201d "
                                                   "lies outside the archive's folder.");
        QTest::newRow("absolute path") << QList<ArchiveEntry>{{QStringLiteral("/tmp/escaped"), ArchiveEntry::Kind::File, 0644, "x", {}, 0}}
                                       << QStringLiteral("The update archive cannot be unpacked: the entry \u201c/tmp/escaped\u201d lies "
                                                         "outside the archive's folder.");
        QTest::newRow("link outside") << QList<ArchiveEntry>{folder, {QStringLiteral("Veldspar.app/key"), ArchiveEntry::Kind::Link, 0777, {}, QStringLiteral("/etc/passwd"), 0}}
                                      << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/key\u201d points "
                                                        "outside the archive's folder.");
        const auto link = [](const char *path, const char *target) {
            return ArchiveEntry{QString::fromUtf8(path), ArchiveEntry::Kind::Link, 0777, {}, QString::fromUtf8(target), 0};
        };
        const auto file = [](const char *path) {
            return ArchiveEntry{QString::fromUtf8(path), ArchiveEntry::Kind::File, 0644, "x", {}, 0};
        };
        QTest::newRow("link through a link to its own folder")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/d", "."), link("Veldspar.app/e", "d/d/../../etc/passwd")}
            << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/e\u201d points outside the "
                              "archive's folder.");
        QTest::newRow("parent of a link to its own folder")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/t", "."), link("Veldspar.app/s", "t/../..")}
            << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/s\u201d points outside the "
                              "archive's folder.");
        QTest::newRow("link that a later link turns outside")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/a", "b/../../escaped"), link("Veldspar.app/b", ".")}
            << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/a\u201d points outside the "
                              "archive's folder.");
        QTest::newRow("link to a neighbour of the bundle")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/x", "../Other.app")}
            << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/x\u201d points outside "
                              "\u201cVeldspar.app\u201d.");
        QTest::newRow("file written through a link inside")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/l", "."), file("Veldspar.app/l/x")}
            << QStringLiteral("The update archive cannot be unpacked: the entry \u201cVeldspar.app/l/x\u201d would be written "
                              "through the link \u201cVeldspar.app/l\u201d.");
        QTest::newRow("file written through a link to /tmp")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/l", "/tmp"), file("Veldspar.app/l/escaped")}
            << QStringLiteral("The update archive cannot be unpacked: the link \u201cVeldspar.app/l\u201d points outside the "
                              "archive's folder.");
        QTest::newRow("folder in place of a link")
            << QList<ArchiveEntry>{folder, link("Veldspar.app/l", "."),
                                   {QStringLiteral("Veldspar.app/l"), ArchiveEntry::Kind::Folder, 0777, {}, {}, 0}}
            << QStringLiteral("The update archive cannot be unpacked: the entry \u201cVeldspar.app/l/\u201d would be written "
                              "through the link \u201cVeldspar.app/l\u201d.");
        QTest::newRow("link in place of a folder")
            << QList<ArchiveEntry>{folder, {QStringLiteral("Veldspar.app/d"), ArchiveEntry::Kind::Folder, 0777, {}, {}, 0},
                                   link("Veldspar.app/d", "../..")}
            << QStringLiteral("The update archive cannot be unpacked: the entry \u201cVeldspar.app/d\u201d appears twice.");
    }

    void archivesThatReachOutsideAreRefused()
    {
        QFETCH(QList<ArchiveEntry>, entries);
        QFETCH(QString, message);
        const QString archivePath = root() + QStringLiteral("/evil.tar.xz");
        writeArchive(entries, archivePath);
        const QString destination = root() + QStringLiteral("/deep/er/unpacked");
        QVERIFY(QDir().mkpath(destination));
        try {
            extractArchive(get(archivePath), destination);
            QFAIL("the archive was unpacked");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(), message);
        }
        QVERIFY(!QFileInfo::exists(root() + QStringLiteral("/deep/escaped")));
        QVERIFY(!QFileInfo::exists(QStringLiteral("/tmp/escaped")));
    }

    void linksThatStayInsideUnpack()
    {
        const QList<ArchiveEntry> entries{
            {QStringLiteral("Veldspar.app"), ArchiveEntry::Kind::Folder, 0755, {}, {}, 0},
            {QStringLiteral("Veldspar.app/Resources"), ArchiveEntry::Kind::Folder, 0755, {}, {}, 0},
            {QStringLiteral("Veldspar.app/Resources/app"), ArchiveEntry::Kind::Link, 0777, {}, QStringLiteral("../Veldspar"), 0},
            {QStringLiteral("Veldspar.app/Resources/self"), ArchiveEntry::Kind::Link, 0777, {}, QStringLiteral("."), 0},
            {QStringLiteral("Veldspar.app/Resources/up"), ArchiveEntry::Kind::Link, 0777, {}, QStringLiteral("self/self/.."), 0},
            {QStringLiteral("Veldspar.app/Veldspar"), ArchiveEntry::Kind::File, 0755, "#!/bin/sh\n", {}, 0},
            {QStringLiteral("Veldspar.app/later"), ArchiveEntry::Kind::Link, 0777, {}, QStringLiteral("Resources/missing"), 0},
        };
        const QString archivePath = root() + QStringLiteral("/links.tar.xz");
        writeArchive(entries, archivePath);
        const QString destination = root() + QStringLiteral("/unpacked");
        QVERIFY(QDir().mkpath(destination));
        extractArchive(get(archivePath), destination);
        const QString bundle = destination + QStringLiteral("/Veldspar.app");
        QCOMPARE(QFileInfo(bundle + QStringLiteral("/Resources/app")).symLinkTarget(), bundle + QStringLiteral("/Veldspar"));
        QCOMPARE(get(bundle + QStringLiteral("/Resources/up/Veldspar")), QByteArray("#!/bin/sh\n"));
        QVERIFY(QFileInfo(bundle + QStringLiteral("/later")).isSymLink());
    }

    void swapPutsTheNewBundleInPlace()
    {
        install(installedRecipe());
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        writeBundle(staged, next);
        const QMap<QString, QByteArray> expected = snapshot(staged);
        swapBundles(m_bundle, staged);
        QCOMPARE(snapshot(m_bundle), expected);
        QVERIFY(removeTree(m_applications + QStringLiteral("/.staging")));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    void swapRollsBackWhenTheNewBundleCannotMoveIn()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        writeBundle(staged, next);

        // No atomic exchange on this filesystem, and moving the new bundle in fails.
        SwapOperations operations = systemSwapOperations();
        const auto rename = operations.rename;
        QStringList calls;
        operations.exchange = [](const QString &, const QString &) { return EINVAL; };
        operations.rename = [&](const QString &from, const QString &to) {
            calls << QFileInfo(from).fileName() + QStringLiteral(" -> ") + QFileInfo(to).fileName();
            if (QFileInfo(from).fileName().endsWith(QStringLiteral("-incoming")) && to == m_bundle)
                return EIO;
            return rename(from, to);
        };
        try {
            swapBundles(m_bundle, staged, operations);
            QFAIL("the swap succeeded");
        } catch (const Error &error) {
            QCOMPARE(error.code(), int(UpdateErrorCode::InstallationFailed));
            QCOMPARE(error.localizedDescription(),
                     QStringLiteral("Veldspar could not put the update in place of %1: moving the update in failed: %2. The "
                                    "installed version was left as it was.")
                         .arg(m_bundle, QString::fromLocal8Bit(strerror(EIO))));
        }
        QCOMPARE(calls, (QStringList{QStringLiteral("Veldspar.app -> .Veldspar.app-incoming"),
                                     QStringLiteral("Veldspar.app -> .Veldspar.app-previous"),
                                     QStringLiteral(".Veldspar.app-incoming -> Veldspar.app"),
                                     QStringLiteral(".Veldspar.app-previous -> Veldspar.app")}));
        QCOMPARE(snapshot(m_bundle), before);
        QVERIFY(removeTree(m_applications + QStringLiteral("/.staging")));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    // A crash at any step of a swap, on a filesystem with an atomic exchange and on one
    // without: the next start of the app, from wherever it can still start, leaves one complete
    // bundle, the old or the new one as far as the swap got, and nothing beside it.
    void swapCutShortByACrashIsRecoveredAtTheNextStart_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("startedFrom"); // the bundle whose executable starts
        QTest::addColumn<QString>("expected");    // the version then installed

        auto row = [](const char *mode, const char *step, const QString &from, const char *expected) {
            QTest::addRow("%s, %s, started from %s", mode, step, qPrintable(from))
                << QString::fromLatin1(mode) << QString::fromLatin1(step) << from << QString::fromLatin1(expected);
        };
        for (const char *mode : {"exchange", "fallback"}) {
            row(mode, "UpdateBeside", QStringLiteral("Veldspar.app"), "1.0");
            row(mode, "removing", QStringLiteral("Veldspar.app"), "1.1");
            row(mode, "OldRemoved", QStringLiteral("Veldspar.app"), "1.1");
            row(mode, "none", QStringLiteral("Veldspar.app"), "1.1");
        }
        row("exchange", "Exchanged", QStringLiteral("Veldspar.app"), "1.1");
        // Between the two renames there is no Veldspar.app: only the copies moved aside start.
        row("fallback", "InstalledAside", QStringLiteral(".Veldspar.app-previous"), "1.0");
        row("fallback", "InstalledAside", QStringLiteral(".Veldspar.app-incoming"), "1.0");
        row("fallback", "UpdateIn", QStringLiteral("Veldspar.app"), "1.1");
    }

    void swapCutShortByACrashIsRecoveredAtTheNextStart()
    {
        QFETCH(QString, mode);
        QFETCH(QString, step);
        QFETCH(QString, startedFrom);
        QFETCH(QString, expected);
        // An abandoned staging folder, as a crash during the swap leaves it.
        const QString staged = m_applications + QStringLiteral("/.Veldspar.app-update-Crash1/unpacked/Veldspar.app");
        const QMap<QString, QMap<QString, QByteArray>> bundles = installWithUpdateStaged(staged);

        int status = -1;
        runProgram(QStringLiteral(VELDSPAR_SWAP_CRASH_PROBE), {QStringLiteral("swap"), m_bundle, staged, step, mode}, &status);
        QCOMPARE(status, step == QStringLiteral("none") ? 0 : int(SIGKILL) + 128);
        const QString program = m_applications + u'/' + startedFrom + QStringLiteral("/Veldspar");
        QVERIFY2(QFileInfo(program).isExecutable(), qPrintable(besideBundle().join(u' ')));
        // A copy moved aside is started only when the installed one cannot be.
        QCOMPARE(QFileInfo::exists(m_bundle), startedFrom == QStringLiteral("Veldspar.app"));

        QCOMPARE(runProgram(program, {QStringLiteral("start")}, &status), m_bundle + u'\n');
        QCOMPARE(status, 0);
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
        QCOMPARE(snapshot(m_bundle), bundles.value(expected));
        const BundleInfo info = readBundleInfo(m_bundle);
        QCOMPARE(info.version, expected);
        QVERIFY(QFileInfo(info.executablePath()).isExecutable());
    }

    // The names a swap sets a bundle aside under, and only those, lead back to the bundle.
    void namesSetAsideLeadBackToTheBundle_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("installed"); // null: not a name a swap gives
        QTest::newRow("incoming") << QStringLiteral(".Veldspar.app-incoming") << QStringLiteral("Veldspar.app");
        QTest::newRow("previous") << QStringLiteral(".Veldspar.app-previous") << QStringLiteral("Veldspar.app");
        QTest::newRow("numbered") << QStringLiteral(".Veldspar.app-previous12") << QStringLiteral("Veldspar.app");
        QTest::newRow("the last suffix counts") << QStringLiteral(".a-incoming-previous") << QStringLiteral("a-incoming");
        QTest::newRow("a dash in the name") << QStringLiteral(".My Radio-Tools.app-incoming3") << QStringLiteral("My Radio-Tools.app");
        QTest::newRow("the bundle itself") << QStringLiteral("Veldspar.app") << QString();
        QTest::newRow("not hidden") << QStringLiteral("Veldspar.app-incoming") << QString();
        QTest::newRow("no name") << QStringLiteral(".-incoming") << QString();
        QTest::newRow("only the dot") << QStringLiteral(".") << QString();
        QTest::newRow("a staging folder") << QStringLiteral(".Veldspar.app-update-a1B2c34") << QString();
        QTest::newRow("letters after") << QStringLiteral(".Veldspar.app-incomingX") << QString();
        QTest::newRow("another word") << QStringLiteral(".Veldspar.app-outgoing") << QString();
    }

    void namesSetAsideLeadBackToTheBundle()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, installed);
        const std::optional<QString> found = bundleNameSetAside(fileName);
        QCOMPARE(found.has_value(), !installed.isNull());
        if (found)
            QCOMPARE(*found, installed);
    }

    // A swap that a crash cut short is undone before the next swap, which then succeeds.
    void swapAfterACrashedSwapFinishesWhatItLeft_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<QString>("step");
        QTest::newRow("exchange, exchanged") << QStringLiteral("exchange") << QStringLiteral("Exchanged");
        QTest::newRow("exchange, update beside") << QStringLiteral("exchange") << QStringLiteral("UpdateBeside");
        QTest::newRow("fallback, installed aside") << QStringLiteral("fallback") << QStringLiteral("InstalledAside");
        QTest::newRow("fallback, removing") << QStringLiteral("fallback") << QStringLiteral("removing");
    }

    void swapAfterACrashedSwapFinishesWhatItLeft()
    {
        QFETCH(QString, mode);
        QFETCH(QString, step);
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        installWithUpdateStaged(staged);
        int status = -1;
        runProgram(QStringLiteral(VELDSPAR_SWAP_CRASH_PROBE), {QStringLiteral("swap"), m_bundle, staged, step, mode}, &status);
        QCOMPARE(status, int(SIGKILL) + 128);

        BundleRecipe later = installedRecipe();
        later.version = QStringLiteral("1.2");
        const QString again = root() + QStringLiteral("/again/Veldspar.app");
        writeBundle(again, later);
        const QMap<QString, QByteArray> expected = snapshot(again);
        SwapOperations operations = systemSwapOperations();
        if (mode == QStringLiteral("fallback"))
            operations.exchange = [](const QString &, const QString &) { return EINVAL; };
        swapBundles(m_bundle, again, operations);
        QCOMPARE(snapshot(m_bundle), expected);
        QVERIFY(removeTree(m_applications + QStringLiteral("/.staging")));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    // A second start while this copy swaps leaves the swap alone.
    void recoveryLeavesASwapUnderWayAlone()
    {
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        const QMap<QString, QMap<QString, QByteArray>> bundles = installWithUpdateStaged(staged);
        SwapOperations operations = systemSwapOperations();
        operations.exchange = [](const QString &, const QString &) { return EINVAL; };
        QString recovered = QStringLiteral("not run");
        operations.stepDone = [&](SwapStep step) {
            if (step == SwapStep::InstalledAside)
                recovered = runProgram(m_applications + QStringLiteral("/.Veldspar.app-previous/Veldspar"),
                                       {QStringLiteral("start")});
        };
        swapBundles(m_bundle, staged, operations);
        // It found the installed bundle missing and left it so, for the swap to finish.
        QCOMPARE(recovered, QStringLiteral("%1/.Veldspar.app-previous\n").arg(m_applications));
        QCOMPARE(snapshot(m_bundle), bundles.value(QStringLiteral("1.1")));
        QVERIFY(removeTree(m_applications + QStringLiteral("/.staging")));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    // What an earlier swap left and cannot be removed would take the swap's names: the swap
    // refuses, and the installed bundle stays.
    void swapRefusesWhileALeftoverCannotBeRemoved()
    {
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        const QMap<QString, QMap<QString, QByteArray>> bundles = installWithUpdateStaged(staged);
        const QString leftover = m_applications + QStringLiteral("/.Veldspar.app-incoming");
        put(leftover + QStringLiteral("/kept"), "x");
        SwapOperations operations = systemSwapOperations();
        operations.remove = [&](const QString &path) { return path != leftover && removeTree(path); };
        try {
            swapBundles(m_bundle, staged, operations);
            QFAIL("the swap succeeded");
        } catch (const Error &error) {
            QCOMPARE(error.code(), int(UpdateErrorCode::NotWritable));
            QCOMPARE(error.localizedDescription(),
                     QStringLiteral("Veldspar cannot update itself in %1: %2, left by an earlier update, cannot be "
                                    "removed.")
                         .arg(m_applications, leftover));
        }
        QCOMPARE(snapshot(m_bundle), bundles.value(QStringLiteral("1.0")));
        QCOMPARE(get(leftover + QStringLiteral("/kept")), QByteArray("x"));
    }

    // A swap does not start while another process recovers or swaps in the same folder.
    void swapWaitsForAnotherProcessInTheFolder()
    {
        const QString staged = m_applications + QStringLiteral("/.staging/unpacked/Veldspar.app");
        const QMap<QString, QMap<QString, QByteArray>> bundles = installWithUpdateStaged(staged);
        // Another open description of the folder, locked as the other process would.
        const int other = ::open(QFile::encodeName(m_applications).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        QVERIFY(other >= 0);
        const auto closeOther = qScopeGuard([other] { ::close(other); });
        QCOMPARE(::flock(other, LOCK_EX | LOCK_NB), 0);
        try {
            swapBundles(m_bundle, staged);
            QFAIL("the swap succeeded");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(),
                     QStringLiteral("Veldspar could not put the update in place of %1: another process is changing the "
                                    "folder: %2. The installed version was left as it was.")
                         .arg(m_bundle, QString::fromLocal8Bit(strerror(EWOULDBLOCK))));
        }
        QCOMPARE(snapshot(m_bundle), bundles.value(QStringLiteral("1.0")));
        // Once it lets go, the swap goes ahead.
        QCOMPARE(::flock(other, LOCK_UN), 0);
        swapBundles(m_bundle, staged);
        QCOMPARE(snapshot(m_bundle), bundles.value(QStringLiteral("1.1")));
    }

    // -----------------------------------------------------------------------------------
    // The release tool

    // The check over pieces gives the answer of the check over the whole message, for good
    // signatures, changed messages, changed signatures and other keys, however the message is cut.
    void streamedVerificationAgreesWithTheWholeMessageCheck()
    {
        const auto streamed = [](const QByteArray &message, const QByteArray &signature, const QByteArray &publicKey,
                                 qsizetype piece) {
            Ed25519Verifier verifier(signature, publicKey);
            for (qsizetype at = 0; at < message.size(); at += piece)
                verifier.add(QByteArrayView(message.constData() + at, qMin(piece, message.size() - at)));
            return verifier.matches();
        };
        const Ed25519KeyPair other = generateKeyPair();
        for (const qsizetype size : {0, 1, 63, 64, 1000, 200000}) {
            const QByteArray message = randomBytes(size);
            const QByteArray good = signDetached(message, m_keys.seed);
            QByteArray changedMessage = message + "x";
            QByteArray changedR = good;
            changedR[3] = char(changedR.at(3) ^ 0x10);
            QByteArray changedS = good;
            changedS[40] = char(changedS.at(40) ^ 0x01);
            const QList<std::tuple<QByteArray, QByteArray, QByteArray>> cases{
                {message, good, m_keys.publicKey},         {changedMessage, good, m_keys.publicKey},
                {message, changedR, m_keys.publicKey},     {message, changedS, m_keys.publicKey},
                {message, good, other.publicKey},          {message, good.left(63), m_keys.publicKey},
                {message, good, m_keys.publicKey.left(31)}};
            for (const auto &[text, sig, key] : cases)
                for (const qsizetype piece : {qsizetype(1), qsizetype(7), qsizetype(4096), qMax(qsizetype(1), text.size())})
                    QCOMPARE(streamed(text, sig, key, piece), verifyDetached(text, sig, key));
            QVERIFY(streamed(message, good, m_keys.publicKey, 4096));
        }
    }

    // Known answers (RFC 8032, section 7.1, tests 1 and 2): the scheme is plain Ed25519, and a
    // second signature made by adding the group order to S is refused as libsodium refuses it.
    void streamedVerificationKnowsPlainEd25519()
    {
        const QByteArray seed1 = QByteArray::fromHex("9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60");
        const QByteArray key1 = QByteArray::fromHex("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a");
        const QByteArray signature1 = QByteArray::fromHex("e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e06522490155"
                                                          "5fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b");
        const QByteArray key2 = QByteArray::fromHex("3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c");
        const QByteArray signature2 = QByteArray::fromHex("92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da"
                                                          "085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aeeb00d291612bb0c00");
        QCOMPARE(keyPairFromSeed(seed1).publicKey, key1);
        QCOMPARE(signDetached(QByteArray(), seed1), signature1);
        Ed25519Verifier empty(signature1, key1);
        QVERIFY(empty.matches());
        QVERIFY(!empty.matches()); // ended
        Ed25519Verifier oneByte(signature2, key2);
        oneByte.add(QByteArray::fromHex("72"));
        QVERIFY(oneByte.matches());

        // S + L, little-endian: the same equation holds, but S is not reduced.
        const QByteArray order = QByteArray::fromHex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
        QByteArray malleable = signature1;
        int carry = 0;
        for (int i = 0; i < 32; ++i) {
            const int sum = quint8(malleable.at(32 + i)) + quint8(order.at(i)) + carry;
            malleable[32 + i] = char(sum & 0xff);
            carry = sum >> 8;
        }
        QCOMPARE(carry, 0);
        QVERIFY(!verifyDetached(QByteArray(), malleable, key1));
        QVERIFY(!Ed25519Verifier(malleable, key1).matches());
    }

    void releaseToolSignsAndVerifies()
    {
        const QString keyFile = root() + QStringLiteral("/keys/release-key");
        int status = -1;
        QString errors;
        const QString generated = runTool({QStringLiteral("generate-keys"), QStringLiteral("--key-file"), keyFile}, &status);
        QCOMPARE(status, 0);
        QCOMPARE(QFileInfo(keyFile).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        const QString publicKey = runTool({QStringLiteral("public-key"), QStringLiteral("--key-file"), keyFile}, &status).trimmed();
        QCOMPARE(status, 0);
        QVERIFY(generated.contains(QStringLiteral("<string>%1</string>").arg(publicKey)));
        QCOMPARE(decodePublicEdKey(publicKey).size(), 32);

        // A second generate-keys never overwrites the key.
        runTool({QStringLiteral("generate-keys"), QStringLiteral("--key-file"), keyFile}, &status, &errors);
        QCOMPARE(status, 1);
        QVERIFY2(errors.contains(QStringLiteral("already exists")), qPrintable(errors));
        QCOMPARE(runTool({QStringLiteral("public-key"), QStringLiteral("--key-file"), keyFile}).trimmed(), publicKey);

        const QString file = root() + QStringLiteral("/Veldspar-1.1.tar.xz");
        const QByteArray bytes = QByteArray(5000, 'a') + "release";
        put(file, bytes);
        const QString signed_ = runTool({QStringLiteral("sign"), file, QStringLiteral("--key-file"), keyFile}, &status).trimmed();
        QCOMPARE(status, 0);
        const QRegularExpression form(QStringLiteral("^sparkle:edSignature=\"([A-Za-z0-9+/=]{88})\" length=\"5007\"$"));
        const QRegularExpressionMatch match = form.match(signed_);
        QVERIFY2(match.hasMatch(), qPrintable(signed_));
        const QString sig = match.captured(1);
        // The signature is what the engine checks.
        QVERIFY(verifyDetached(bytes, *decodeSignature(sig), decodePublicEdKey(publicKey)));

        QCOMPARE(runTool({QStringLiteral("verify"), file, sig, publicKey}, &status),
                 QStringLiteral("The signature is valid for %1 (5007 bytes).\n").arg(file));
        QCOMPARE(status, 0);

        put(file, bytes + "!");
        runTool({QStringLiteral("verify"), file, sig, publicKey}, &status, &errors);
        QCOMPARE(status, 1);
        QCOMPARE(errors, QStringLiteral("The signature does NOT match %1 (5008 bytes): the file was changed after signing, "
                                        "or signed with another key.\n")
                             .arg(file));
        put(file, bytes);
        runTool({QStringLiteral("verify"), file, sig, QString::fromLatin1(m_keys.publicKey.toBase64())}, &status);
        QCOMPARE(status, 1);
    }

    void releaseToolComparesVersions()
    {
        QCOMPARE(runTool({QStringLiteral("compare-versions"), QStringLiteral("1.0b1"), QStringLiteral("1.0")}), QStringLiteral("<\n"));
        QCOMPARE(runTool({QStringLiteral("compare-versions"), QStringLiteral("1.0"), QStringLiteral("1.0.0")}), QStringLiteral("=\n"));
        QCOMPARE(runTool({QStringLiteral("compare-versions"), QStringLiteral("1.0b10"), QStringLiteral("1.0b9")}), QStringLiteral(">\n"));
    }

    void releaseToolExplainsAFeed()
    {
        const QString url = QStringLiteral("Veldspar.tar.xz");
        const QByteArray xml = feedXml({
            feedItem(QStringLiteral("1.3"), url, 5, QStringLiteral("s"), {}, QString()),
            feedItem(QStringLiteral("1.2"), url, 5, QStringLiteral("s"), QStringLiteral("<sparkle:channel>beta</sparkle:channel>")),
            feedItem(QStringLiteral("1.1"), url, 5, QStringLiteral("s"), QStringLiteral("<sparkle:criticalUpdate/>")),
            feedItem(QStringLiteral("1.0.1"), url, 5, QStringLiteral("s")),
            feedItem(QStringLiteral("1.0"), url, 5, QStringLiteral("s")),
            feedItem(QStringLiteral("2.0"), url, 5, QStringLiteral("s"),
                     QStringLiteral("<sparkle:minimumSystemVersion>99</sparkle:minimumSystemVersion>")),
        });
        m_server->serve(QStringLiteral("/feed.xml"), xml, "application/rss+xml");
        const QString feedUrl = m_server->url(QStringLiteral("/feed.xml"));
        int status = -1;
        const QString report = runTool({QStringLiteral("check-feed"), feedUrl, QStringLiteral("--current-version"), QStringLiteral("1.0"),
                                        QStringLiteral("--system-version"), QStringLiteral("6.1.0")},
                                       &status);
        QCOMPARE(status, 0);
        QCOMPARE(report, QStringLiteral("Feed: %1 (\u201cVeldspar\u201d), 6 items\n"
                                        "Checking as version 1.0 on system version 6.1.0, a user-initiated check\n"
                                        "  1. 1.3: rejected \u2014 is not for Linux: it has no sparkle:os, so it is meant for macOS\n"
                                        "  2. 1.2: rejected \u2014 is on the channel \u201c""beta\u201d, which this app does not follow\n"
                                        "  3. 1.1: offered \u2014 the newest eligible version newer than 1.0, a critical update\n"
                                        "  4. 1.0.1: passed over \u2014 eligible, but 1.1 is newer\n"
                                        "  5. 1.0: rejected \u2014 is not newer than the current version 1.0\n"
                                        "  6. 2.0: rejected \u2014 needs system version 99 or later; this system is 6.1.0\n"
                                        "Would offer 1.1: the newest eligible version newer than 1.0, a critical update\n"
                                        "But its download would be refused: The EdDSA signature (sparkle:edSignature) the "
                                        "feed gives for version 1.1 is malformed: an Ed25519 signature has 64 bytes, this one has "
                                        "0.\n")
                             .arg(feedUrl));

        // From a file, and with nothing to offer.
        const QString file = root() + QStringLiteral("/feed.xml");
        put(file, xml);
        const QString none = runTool({QStringLiteral("check-feed"), file, QStringLiteral("--current-version"), QStringLiteral("1.1"),
                                      QStringLiteral("--system-version"), QStringLiteral("6.1.0"), QStringLiteral("--base-url"),
                                      QStringLiteral("https://updates.veldspar.example/")},
                                     &status);
        QCOMPARE(status, 0);
        QVERIFY2(none.endsWith(QStringLiteral("Would offer nothing: no item of the feed is eligible and newer than 1.1\n")), qPrintable(none));

        // A broken feed is reported, not explained.
        put(file, "<rss><channel><item><enclosure url=\"ftp://a.example/x\"/></item></channel></rss>");
        QString errors;
        runTool({QStringLiteral("check-feed"), file, QStringLiteral("--current-version"), QStringLiteral("1.0")}, &status, &errors);
        QCOMPARE(status, 1);
        QCOMPARE(errors, QStringLiteral("The update feed is not valid: item #1 links to ftp://a.example/x; only http and https "
                                        "links are allowed.\n"));
    }

    void releaseToolPacksABundleTheUpdaterAccepts()
    {
        install(installedRecipe());
        BundleRecipe next = installedRecipe();
        next.version = QStringLiteral("1.1");
        const QString bundle = root() + QStringLiteral("/build/Veldspar.app");
        writeBundle(bundle, next);
        const QString keyFile = root() + QStringLiteral("/key");
        put(keyFile, m_keys.seed.toBase64() + '\n');
        const QString archivePath = root() + QStringLiteral("/dist/Veldspar-1.1.tar.xz");
        QDir().mkpath(root() + QStringLiteral("/dist"));
        int status = -1;
        runTool({QStringLiteral("archive"), bundle, archivePath}, &status);
        QCOMPARE(status, 0);
        QCOMPARE(runTool({QStringLiteral("bundle-version"), bundle}), QStringLiteral("1.1\n"));
        const QString item = runTool({QStringLiteral("appcast-item"), archivePath, QStringLiteral("--bundle"), bundle,
                                      QStringLiteral("--key-file"), keyFile},
                                     &status);
        QCOMPARE(status, 0);
        QVERIFY2(item.contains(QStringLiteral("<enclosure url=\"%1\" sparkle:os=\"linux\"")
                                   .arg(m_server->url(QStringLiteral("/Veldspar-1.1.tar.xz")))),
                 qPrintable(item));

        // The printed item, served as the feed, updates the installed bundle.
        m_server->serve(QStringLiteral("/Veldspar-1.1.tar.xz"), get(archivePath));
        m_server->serve(QStringLiteral("/appcast.xml"),
                        QStringLiteral("<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
                                       "<channel>%1</channel></rss>")
                            .arg(item)
                            .toUtf8());
        RecordingDriver driver;
        auto updater = startedUpdater(driver);
        updater->checkForUpdates();
        QTRY_COMPARE_WITH_TIMEOUT(m_relaunches.size(), 1, 20000);
        QCOMPARE(snapshot(m_bundle), snapshot(bundle));
    }

    // -----------------------------------------------------------------------------------
    // The app's updater owner: its mirrors, the gate, the held relaunch and the commands

    void theEngineLoadsWhenAskedOrAtTheFirstCheck()
    {
        install(installedRecipe());
        serveFeed({});
        const auto counted = countEngines();
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        QMenu menu;
        updates.addMenuItems(&menu);
        QTest::qWait(100);
        QCOMPARE(enginesMade, 0);
        QVERIFY(!updates.engineLoaded());

        // "Check for Updates…" can be chosen before the engine is there: it loads it and checks.
        QAction *checkNow = menu.actions().at(0);
        QVERIFY(checkNow->isEnabled());
        QVERIFY(updates.canCheck());
        checkNow->trigger();
        QCOMPARE(enginesMade, 1);
        QTRY_VERIFY_WITH_TIMEOUT(driver.events.contains(QStringLiteral("up to date")), 10000);
        QCOMPARE(m_server->requestsFor(QStringLiteral("/appcast.xml")), 1);
        updates.loadEngine();
        QCOMPARE(enginesMade, 1);
    }

    // The check mark shows the stored setting from the start, without the engine.
    void checkMarkShowsTheStoredSettingWithoutTheEngine_data()
    {
        QTest::addColumn<std::optional<bool>>("user");
        QTest::addColumn<std::optional<bool>>("infoPlist");
        QTest::addColumn<bool>("shown");
        QTest::newRow("the user's on") << std::optional<bool>(true) << std::optional<bool>(false) << true;
        QTest::newRow("the user's off") << std::optional<bool>(false) << std::optional<bool>(true) << false;
        QTest::newRow("Info.plist on") << std::optional<bool>() << std::optional<bool>(true) << true;
        QTest::newRow("none") << std::optional<bool>() << std::optional<bool>() << false;
    }

    void checkMarkShowsTheStoredSettingWithoutTheEngine()
    {
        QFETCH(std::optional<bool>, user);
        QFETCH(std::optional<bool>, infoPlist);
        QFETCH(bool, shown);
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = infoPlist;
        install(recipe);
        if (user)
            UpdateUserSettings::setAutomaticChecks(*user);
        const auto counted = countEngines();
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        QMenu menu;
        updates.addMenuItems(&menu);
        QAction *automatic = menu.actions().at(1);
        QCOMPARE(automatic->isChecked(), shown);
        // The mirror agrees from the next turn, still without the engine.
        QCOMPARE(updates.automaticChecks(), true);
        QTRY_COMPARE(updates.automaticChecks(), shown);
        QCOMPARE(automatic->isChecked(), shown);
        QCOMPARE(enginesMade, 0);
        QVERIFY(!updates.engineLoaded());
    }

    // The rule that decides, without the engine, when this run needs it.
    void engineIsNeededWhenACheckOrTheQuestionIsDue_data()
    {
        const QDateTime now = QDateTime::currentDateTimeUtc();
        QTest::addColumn<std::optional<bool>>("automatic"); // the user's choice
        QTest::addColumn<std::optional<qint64>>("interval");
        QTest::addColumn<QDateTime>("last");
        QTest::addColumn<bool>("launchedBefore");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QDateTime>("due");
        QTest::newRow("never checked") << std::optional<bool>(true) << std::optional<qint64>() << QDateTime() << true
                                       << now << now;
        QTest::newRow("checked within the interval")
            << std::optional<bool>(true) << std::optional<qint64>(7200) << now.addSecs(-600) << true << now
            << now.addSecs(6600);
        QTest::newRow("due in two seconds") << std::optional<bool>(true) << std::optional<qint64>(3600)
                                            << now.addSecs(-3598) << true << now << now.addSecs(2);
        QTest::newRow("overdue") << std::optional<bool>(true) << std::optional<qint64>() << now.addSecs(-90000) << true
                                 << now << now;
        QTest::newRow("the clock went back") << std::optional<bool>(true) << std::optional<qint64>()
                                             << now.addSecs(3600) << true << now << now.addSecs(86400);
        QTest::newRow("automatic checks off") << std::optional<bool>(false) << std::optional<qint64>() << QDateTime()
                                              << true << now << QDateTime();
        QTest::newRow("an interval of 0") << std::optional<bool>(true) << std::optional<qint64>(0) << QDateTime() << true
                                          << now << QDateTime();
        QTest::newRow("the question on the second launch")
            << std::optional<bool>() << std::optional<qint64>() << QDateTime() << true << now << now;
        QTest::newRow("undecided on the first launch")
            << std::optional<bool>() << std::optional<qint64>() << QDateTime() << false << now << QDateTime();
    }

    void engineIsNeededWhenACheckOrTheQuestionIsDue()
    {
        QFETCH(std::optional<bool>, automatic);
        QFETCH(std::optional<qint64>, interval);
        QFETCH(QDateTime, last);
        QFETCH(bool, launchedBefore);
        QFETCH(QDateTime, now);
        QFETCH(QDateTime, due);
        install(installedRecipe()); // Info.plist leaves SUEnableAutomaticChecks open
        if (automatic)
            UpdateUserSettings::setAutomaticChecks(*automatic);
        if (interval)
            UpdateUserSettings::setCheckInterval(*interval);
        if (last.isValid())
            UpdateUserSettings::setLastCheckTime(last);
        const BundleInfo bundle = readBundleInfo(m_bundle);
        QCOMPARE(engineNeededAt(bundle, launchedBefore, now), due);

        // The app's owner of the updater follows the rule: the engine comes when it is due, and
        // not before.
        if (launchedBefore)
            UpdateUserSettings::setHasLaunchedBefore();
        RecordingDriver driver;
        driver.permissionAnswer = false;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.loadEngineWhenDue();
        if (due == now) {
            QTRY_VERIFY(updates.engineLoaded());
            return;
        }
        QTest::qWait(200);
        QVERIFY(!updates.engineLoaded());
        QCOMPARE(updates.engineDue().isValid(), due.isValid());
        if (due.isValid())
            QVERIFY(qAbs(updates.engineDue().secsTo(due)) <= 2);
        QVERIFY(driver.events.isEmpty());
        // A check due soon: the engine comes when the time does.
        if (due.isValid() && now.secsTo(due) < 10)
            QTRY_VERIFY_WITH_TIMEOUT(updates.engineLoaded(), 10000);
    }

    // A check or a setting asked for while the engine cannot load or start says so; a load
    // nobody asked for only notes it in the log. Asking again says it again.
    void anEngineThatCannotBeLoadedSaysSoWhenAsked_data()
    {
        QTest::addColumn<QString>("cause");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no library") << QStringLiteral("library") << QStringLiteral("libveldspar-updates.so");
        QTest::newRow("a bad update key") << QStringLiteral("key") << QStringLiteral("SUPublicEDKey");
        QTest::newRow("an engine that refuses") << QStringLiteral("factory") << QStringLiteral("The engine refuses.");
    }

    void anEngineThatCannotBeLoadedSaysSoWhenAsked()
    {
        QFETCH(QString, cause);
        QFETCH(QString, reason);
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = true;
        if (cause == QStringLiteral("key"))
            recipe.publicKey = QStringLiteral("AAAA");
        install(recipe);
        if (cause == QStringLiteral("library")) {
            // Without a factory the engine library is looked for beside the running bundle, and
            // this one has none.
            setUpdateEngineFactory(nullptr);
        } else if (cause == QStringLiteral("factory")) {
            setUpdateEngineFactory([](UserDriver *, UpdaterDelegate *, const QString &) -> UpdateEngine * {
                throw Error(QStringLiteral("test"), 1, {{Error::descriptionKey, QStringLiteral("The engine refuses.")}});
            });
        }
        const auto linked = qScopeGuard([] { setUpdateEngineFactory(&veldsparCreateUpdateEngine); });
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        QMenu menu;
        updates.addMenuItems(&menu);
        const auto openBoxes = [] {
            QList<QMessageBox *> boxes;
            for (QWidget *widget : QApplication::topLevelWidgets()) {
                auto *box = qobject_cast<QMessageBox *>(widget);
                if (box && box->objectName() == QStringLiteral("updateUnavailable") && box->isVisible())
                    boxes << box;
            }
            return boxes;
        };
        const auto expectTheBox = [&] {
            QTRY_COMPARE(openBoxes().size(), 1);
            QMessageBox *box = openBoxes().first();
            QCOMPARE(box->text(), QStringLiteral("Veldspar cannot check for updates."));
            QVERIFY2(box->informativeText().contains(reason), qPrintable(box->informativeText()));
            QVERIFY(box->isModal());
            box->buttons().first()->click();
            QTRY_VERIFY(openBoxes().isEmpty());
        };

        // Nobody asked: the log only.
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^The updater cannot start: .*")
                                                              + QRegularExpression::escape(reason)));
        updates.loadEngine();
        QVERIFY(!updates.engineLoaded());
        QTest::qWait(100);
        QVERIFY(openBoxes().isEmpty());

        // Asked, twice: said twice, and the entry stays there to ask again.
        QAction *checkNow = menu.actions().at(0);
        for (int time = 0; time < 2; ++time) {
            QVERIFY(checkNow->isEnabled());
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^The updater cannot start: ")));
            checkNow->trigger();
            expectTheBox();
            if (QTest::currentTestFailed())
                return;
        }
        // The setting cannot change either; its mark keeps showing the stored setting.
        QAction *automatic = menu.actions().at(1);
        QVERIFY(automatic->isChecked());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^The updater cannot start: ")));
        automatic->trigger();
        QVERIFY(automatic->isChecked());
        expectTheBox();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(!updates.engineLoaded());
        QVERIFY(updates.canCheck());
        QVERIFY(driver.events.isEmpty());
        QVERIFY(m_server->requests().isEmpty());
    }

    void emberlaneMirrorsTheUpdaterFromTheNextTurn()
    {
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = false;
        install(recipe);
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.loadEngine(); // as the app does once its window is up
        // Until the event loop has turned once, the mirrors hold their first values.
        QCOMPARE(updates.canCheck(), false);
        QCOMPARE(updates.automaticChecks(), true);
        QTRY_VERIFY(updates.canCheck());
        QCOMPARE(updates.automaticChecks(), false);
    }

    void emberlaneWithoutAGateBlocksNothing()
    {
        install(installedRecipe());
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        AppcastItem item;
        item.version = QStringLiteral("1.1");
        QVERIFY(!updates.shouldProceedWithUpdate(item, CheckKind::UserInitiated));
        QVERIFY(!updates.shouldPostponeRelaunch(item, [] {}));
    }

    void emberlaneGateRefusesAFoundUpdateWithItsText()
    {
        install(installedRecipe());
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        bool busy = true;
        updates.blockedReason = [&busy]() -> std::optional<QString> {
            return busy ? std::optional<QString>(QStringLiteral("Hold on.")) : std::nullopt;
        };
        AppcastItem item;
        item.version = QStringLiteral("1.1");
        const std::optional<Error> refusal = updates.shouldProceedWithUpdate(item, CheckKind::Scheduled);
        QVERIFY(refusal);
        QCOMPARE(refusal->domain(), QStringLiteral("com.emberlane.updates"));
        QCOMPARE(refusal->code(), 1);
        QCOMPARE(refusal->userInfo(), QVariantMap({{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Hold on.")}}));
        busy = false;
        QVERIFY(!updates.shouldProceedWithUpdate(item, CheckKind::Scheduled));
    }

    void emberlaneHoldsTheRelaunchUntilTheGateOpens()
    {
        install(installedRecipe());
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        bool busy = true;
        updates.blockedReason = [&busy]() -> std::optional<QString> {
            return busy ? std::optional<QString>(QStringLiteral("Wait for the current service or configuration operation to finish."))
                        : std::nullopt;
        };
        // Every postponement shows the notice; each is answered with its one button.
        QString message;
        QString detail;
        int alerts = 0;
        int buttons = 0;
        QTimer answerer;
        answerer.setInterval(10);
        connect(&answerer, &QTimer::timeout, [&] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box || box->property("answered").toBool())
                return;
            box->setProperty("answered", true);
            ++alerts;
            message = box->text();
            detail = box->informativeText();
            buttons = int(box->buttons().size());
            box->buttons().first()->click();
        });
        answerer.start();

        AppcastItem item;
        item.version = QStringLiteral("1.1");
        int installs = 0;
        int replaced = 0;
        QVERIFY(updates.shouldPostponeRelaunch(item, [&replaced] { ++replaced; }));
        // A second request while waiting replaces the first callback.
        QVERIFY(updates.shouldPostponeRelaunch(item, [&installs] { ++installs; }));
        QTRY_COMPARE(message, QStringLiteral("Update waiting"));
        QCOMPARE(detail, QStringLiteral("Wait for the current service or configuration operation to finish. The update "
                                        "will continue when it is safe to restart."));
        QCOMPARE(buttons, 1);
        QTRY_COMPARE(alerts, 2);
        QTest::qWait(1500);
        QCOMPARE(installs, 0);
        busy = false;
        QTRY_COMPARE_WITH_TIMEOUT(installs, 1, 2500);
        QTest::qWait(2200); // more ticks: the callback ran once only
        QCOMPARE(installs, 1);
        QCOMPARE(replaced, 0);
    }

    void emberlaneRelaunchesAtOnceWhenFree()
    {
        install(installedRecipe());
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.blockedReason = [] { return std::optional<QString>(); };
        AppcastItem item;
        bool alerted = false;
        QTimer watcher;
        watcher.setInterval(10);
        connect(&watcher, &QTimer::timeout, [&] { alerted = alerted || QApplication::activeModalWidget(); });
        watcher.start();
        QVERIFY(!updates.shouldPostponeRelaunch(item, [] {}));
        QTest::qWait(300);
        QVERIFY(!alerted);
    }

    void menuItemsFollowTheUpdaterSetting_data()
    {
        QTest::addColumn<bool>("stored");
        QTest::newRow("on") << true;
        QTest::newRow("off") << false;
    }

    void menuItemsFollowTheUpdaterSetting()
    {
        QFETCH(bool, stored);
        BundleRecipe recipe = installedRecipe();
        recipe.automaticChecks = stored;
        install(recipe);
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        QMenu menu;
        QAction *quit = menu.addAction(QStringLiteral("Quit Veldspar"));
        updates.addMenuItems(&menu);
        const QList<QAction *> items = menu.actions();
        QCOMPARE(items.size(), 3);
        QCOMPARE(items.at(0), quit);
        QCOMPARE(items.at(1)->text(), QStringLiteral("Check for Updates\u2026"));
        QVERIFY(items.at(1)->shortcut().isEmpty());
        // The menu is built before the engine is loaded: checking can be chosen, which loads it,
        // and the mark shows the stored setting; both follow the engine once it is there.
        QVERIFY(items.at(1)->isEnabled());
        QCOMPARE(items.at(2)->isChecked(), stored);
        updates.loadEngine();
        QVERIFY(items.at(1)->isEnabled());
        QAction *automatic = items.at(2);
        QCOMPARE(automatic->text(), QStringLiteral("Check for Updates Automatically"));
        QVERIFY(automatic->shortcut().isEmpty());
        QVERIFY(automatic->isCheckable());
        QCOMPARE(automatic->isChecked(), stored);
        // Chosen twice, the setting comes back to where it was; the mark follows each change.
        automatic->trigger();
        QCOMPARE(updates.updater().automaticallyChecksForUpdates(), !stored);
        QCOMPARE(automatic->isChecked(), !stored);
        QTRY_COMPARE(updates.automaticChecks(), !stored);
        automatic->trigger();
        QCOMPARE(updates.updater().automaticallyChecksForUpdates(), stored);
        QCOMPARE(automatic->isChecked(), stored);
        QTRY_COMPARE(updates.automaticChecks(), stored);
    }

    void commandsDisableCheckingWhileTheUpdaterCannotCheck()
    {
        install(installedRecipe());
        publishGoodUpdate();
        RecordingDriver driver;
        driver.offerAnswer = UpdateAnswer::RemindLater;
        EmberlaneUpdates updates(m_bundle, &driver);
        EmberlaneUpdateCommands commands(updates);
        updates.loadEngine();
        QCOMPARE(commands.checkForUpdates()->text(), QStringLiteral("Check for Updates\u2026"));
        QVERIFY(!commands.checkForUpdates()->isEnabled()); // not before the updater says so
        QTRY_VERIFY(commands.checkForUpdates()->isEnabled());
        // Through a whole check, the command's state matches every change of canCheck.
        QList<std::pair<bool, bool>> seen;
        connect(&updates, &EmberlaneUpdates::canCheckChanged, this,
                [&](bool canCheck) { seen.append({canCheck, commands.checkForUpdates()->isEnabled()}); });
        QSignalSpy finished(&updates.updater(), &Updater::sessionFinished);
        commands.checkForUpdates()->trigger();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 20000);
        QTRY_VERIFY(commands.checkForUpdates()->isEnabled());
        QVERIFY(driver.offer);
        QVERIFY(std::any_of(seen.begin(), seen.end(), [](const auto &change) { return !change.first; }));
        for (const auto &change : seen)
            QCOMPARE(change.second, change.first);

        const bool before = updates.updater().automaticallyChecksForUpdates();
        QCOMPARE(commands.automaticChecks()->text(), QStringLiteral("Check for Updates Automatically"));
        commands.automaticChecks()->trigger();
        QCOMPARE(updates.updater().automaticallyChecksForUpdates(), !before);
        QTRY_COMPARE(commands.automaticChecks()->isChecked(), !before);
    }

    // The whole road through the app: its controller's gate refuses while a save runs, then
    // the update installs once the save is over.
    void appRefusesAnUpdateWhileBusyAndInstallsItAfterwards()
    {
        install(installedRecipe());
        const QMap<QString, QByteArray> before = snapshot(m_bundle);
        publishGoodUpdate();
        TestWorld world;
        world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QString(), QStringLiteral("One"), QString())}));
        world.answerDiscover(QStringLiteral("10.0.0.1"), "{\"serialNumber\":\"A-1\",\"version\":\"3.3\"}\n", 0, true);
        RunningApp app(world);
        RecordingDriver driver;
        EmberlaneUpdates updates(m_bundle, &driver);
        updates.blockedReason = EmberlaneUpdates::shared().blockedReason; // the gate the app installed
        app.click(app.includeBox()); // a save whose probe waits
        QVERIFY(app.app().isBusy());

        QSignalSpy finished(&updates.updater(), &Updater::sessionFinished);
        updates.check();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 1, 20000);
        QVERIFY(driver.error);
        QCOMPARE(driver.error->domain(), QStringLiteral("com.emberlane.updates"));
        QCOMPARE(driver.error->localizedDescription(),
                 QStringLiteral("Wait for the current service or configuration operation to finish."));
        expectUntouched(before);

        world.release();
        QVERIFY(app.waitUntilIdle());
        driver.error.reset();
        updates.check();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 2, 20000);
        QVERIFY2(!driver.error, driver.error ? qPrintable(driver.error->description()) : "");
        QCOMPARE(m_relaunches.size(), 1);
        QCOMPARE(get(m_bundle + QStringLiteral("/Veldspar")), QByteArray("#!/bin/sh\necho Veldspar 1.1\n"));
        QCOMPARE(besideBundle(), QStringList{QStringLiteral("Veldspar.app")});
    }

    void appGateReportsNothingOnceTheControllerIsGone()
    {
        {
            TestWorld world;
            world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QString(), QStringLiteral("One"), QString())}));
            world.answerDiscover(QStringLiteral("10.0.0.1"), "{\"serialNumber\":\"A-1\",\"version\":\"3.3\"}\n", 0, true);
            RunningApp app(world);
            QVERIFY(!EmberlaneUpdates::shared().blockedReason());
            app.click(app.includeBox()); // a save whose probe waits
            QCOMPARE(EmberlaneUpdates::shared().blockedReason(),
                     std::optional<QString>(QStringLiteral("Wait for the current service or configuration operation to finish.")));
            world.release();
            QVERIFY(app.waitUntilIdle());
        }
        QVERIFY(!EmberlaneUpdates::shared().blockedReason());
    }

    void standardWindowsOfferTheUsualChoices()
    {
        StandardUserDriver driver;
        const auto buttonTitles = [&driver] {
            QStringList titles;
            for (QPushButton *button : driver.window()->findChildren<QPushButton *>())
                titles << button->text();
            return titles;
        };
        const auto press = [&driver](const QString &title) {
            for (QPushButton *button : driver.window()->findChildren<QPushButton *>())
                if (button->text() == title)
                    button->click();
        };
        UpdateOffer offer;
        offer.appName = QStringLiteral("Veldspar");
        offer.currentVersion = QStringLiteral("1.0");
        offer.item.version = QStringLiteral("1.1");
        offer.item.displayVersion = QStringLiteral("1.1");
        offer.item.description = QStringLiteral("<p>Better beacons.</p>");
        std::optional<UpdateAnswer> answer;
        driver.showUpdateFound(offer, [&answer](UpdateAnswer given) { answer = given; });
        QVERIFY(driver.window()->isVisible());
        QCOMPARE(driver.window()->findChild<QLabel *>(QStringLiteral("heading"))->text(),
                 QStringLiteral("A new version of Veldspar is available!"));
        QCOMPARE(driver.window()->findChild<QLabel *>(QStringLiteral("detail"))->text(),
                 QStringLiteral("Veldspar 1.1 is now available\u2014you have 1.0. Would you like to download it now?"));
        QCOMPARE(driver.window()->findChild<QTextBrowser *>()->toPlainText(), QStringLiteral("Better beacons."));
        QCOMPARE(buttonTitles(), QStringList({QStringLiteral("Skip This Version"), QStringLiteral("Remind Me Later"),
                                              QStringLiteral("Install Update")}));
        press(QStringLiteral("Skip This Version"));
        QCOMPARE(answer, std::optional<UpdateAnswer>(UpdateAnswer::Skip));
        QVERIFY(!driver.window());

        offer.critical = true; // nothing to put off
        driver.showUpdateFound(offer, [&answer](UpdateAnswer given) { answer = given; });
        QCOMPARE(buttonTitles(), QStringList({QStringLiteral("Install Update")}));
        press(QStringLiteral("Install Update"));
        QCOMPARE(answer, std::optional<UpdateAnswer>(UpdateAnswer::Install));

        bool cancelled = false;
        driver.showDownloadStarted([&cancelled] { cancelled = true; });
        driver.showDownloadProgress(1200000, 3400000);
        QCOMPARE(driver.window()->findChild<QLabel *>(QStringLiteral("detail"))->text(), formatByteProgress(1200000, 3400000));
        QCOMPARE(driver.window()->findChild<QProgressBar *>()->value(), 352);
        press(QStringLiteral("Cancel"));
        QVERIFY(cancelled);

        std::optional<InstallAnswer> install;
        driver.showReadyToInstall([&install](InstallAnswer given) { install = given; });
        QCOMPARE(buttonTitles(), QStringList({QStringLiteral("Later"), QStringLiteral("Install and Relaunch")}));
        press(QStringLiteral("Install and Relaunch"));
        QCOMPARE(install, std::optional<InstallAnswer>(InstallAnswer::InstallAndRelaunch));

        driver.showUpdateNotFound(UpToDate{QStringLiteral("You\u2019re up to date!"), QStringLiteral("Veldspar 1.0 is the newest version.")});
        QCOMPARE(driver.window()->findChild<QLabel *>(QStringLiteral("heading"))->text(), QStringLiteral("You\u2019re up to date!"));
        driver.dismissUpdateInstallation();
        QVERIFY(!driver.window());
    }
};

QTEST_MAIN(UpdatesTest)
#include "tst_updates.moc"
