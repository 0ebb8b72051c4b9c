#include "daemon/StateFile.h"

#include "daemon/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr int shortestGapMs = 1000;
// A failed write is tried again after a pause that grows to a few seconds: soon enough for the
// app once the disk has room again, rare enough not to spin.
constexpr int firstRetryMs = 1000;
constexpr int longestRetryMs = 4000;
// How often the file is looked for: the app reads a missing file as a service that is not running.
constexpr int presenceCheckMs = 2000;

// The runtime folder counts only as the login manager makes it: a real folder of this user
// that nobody else may enter.
bool isPrivateRuntimeFolder(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path))
        return false;
    struct stat info{};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    return S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() && (info.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// Makes the service's own folder in the runtime folder, 0700; an existing one must be a real
// folder of this user.
bool makeOwnFolder(const QString &folder)
{
    const QByteArray name = QFile::encodeName(folder);
    if (::mkdir(name.constData(), S_IRWXU) != 0 && errno != EEXIST)
        return false;
    struct stat info{};
    return ::lstat(name.constData(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid();
}

bool writeAll(int fd, const QByteArray &bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

struct Replaced
{
    QString problem; // why it failed; empty when the file is in place
    FileIdentity identity;
};

// mkstemp, making the folder again when someone removed it (as makeOwnFolder would, 0700).
int makeTemporary(const QString &folder, QByteArray &temporary)
{
    const int fd = ::mkstemp(temporary.data());
    if (fd >= 0 || errno != ENOENT || ::mkdir(QFile::encodeName(folder).constData(), S_IRWXU) != 0)
        return fd;
    return ::mkstemp(temporary.data());
}

// Written to a temporary file (mkstemp makes it 0600) and renamed into place. Not synced: the
// file describes this run only and means nothing after a power cut.
Replaced replaceFile(const QString &path, const QByteArray &bytes)
{
    const QFileInfo info(path);
    QByteArray temporary = QFile::encodeName(info.absolutePath() + u"/."_s + info.fileName() + u".XXXXXX"_s);
    const int fd = makeTemporary(info.absolutePath(), temporary);
    if (fd < 0)
        return {QString::fromLocal8Bit(std::strerror(errno)), {}};
    struct stat written{};
    const bool complete = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, bytes) && ::fstat(fd, &written) == 0;
    const int error = errno;
    if (::close(fd) != 0 || !complete) {
        ::unlink(temporary.constData());
        return {QString::fromLocal8Bit(std::strerror(complete ? errno : error)), {}};
    }
    if (::rename(temporary.constData(), QFile::encodeName(info.absoluteFilePath()).constData()) != 0) {
        const int renameError = errno;
        ::unlink(temporary.constData());
        return {QString::fromLocal8Bit(std::strerror(renameError)), {}};
    }
    return {{}, {written.st_dev, written.st_ino}};
}

// What is at path now, if anything (a link is not followed).
std::optional<FileIdentity> identityAt(const QString &path)
{
    struct stat info{};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return FileIdentity{info.st_dev, info.st_ino};
}

bool isGone(const QString &path)
{
    struct stat info{};
    return ::lstat(QFile::encodeName(path).constData(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}
} // namespace

QString stateFilePath(const QString &configPath)
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isPrivateRuntimeFolder(runtime)) {
        const QString folder = QDir::cleanPath(runtime) + u"/Veldspar"_s;
        if (makeOwnFolder(folder))
            return folder + u"/state.json"_s;
    }
    return QFileInfo(configPath).absolutePath() + u"/state.json"_s;
}

StateFile::StateFile(const QString &path, std::function<QList<RadioLiveState>()> collect, QObject *parent)
    : QObject(parent), m_path(path), m_collect(std::move(collect)), m_retryMs(firstRetryMs)
{
    m_timer.setSingleShot(true);
    // A coarse timer may fire a little early, and the gap is a promise.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &StateFile::write);
    m_presenceTimer.setInterval(presenceCheckMs);
    connect(&m_presenceTimer, &QTimer::timeout, this, &StateFile::lookForFile);
    m_presenceTimer.start();
    changed();
}

StateFile::~StateFile()
{
    // Not a file that another service wrote over this one's.
    if (m_everWritten && identityAt(m_path) == m_identity)
        QFile::remove(m_path);
}

void StateFile::changed()
{
    if (m_timer.isActive())
        return; // the coming write takes this change in too
    const qint64 sinceLast = m_lastWrite.isValid() ? m_lastWrite.elapsed() : shortestGapMs;
    m_timer.start(int(std::max<qint64>(0, shortestGapMs - sinceLast)));
}

void StateFile::lookForFile()
{
    if (!m_everWritten || m_stale || !isGone(m_path))
        return;
    m_stale = true;
    changed();
}

bool StateFile::differsFromWritten(const QList<RadioLiveState> &radios) const
{
    if (!m_everWritten || m_stale || radios.size() != m_written.size())
        return true;
    for (qsizetype i = 0; i < radios.size(); ++i)
        if (!radios.at(i).sameShownState(m_written.at(i)))
            return true;
    return false;
}

void StateFile::write()
{
    if (m_lastWrite.isValid() && m_lastWrite.elapsed() < shortestGapMs)
        return m_timer.start(int(shortestGapMs - m_lastWrite.elapsed()));
    const QList<RadioLiveState> radios = m_collect();
    if (!differsFromWritten(radios))
        return;
    m_lastWrite.start();
    const Replaced replaced =
        replaceFile(m_path, liveStateDocument(radios, QCoreApplication::applicationPid(), QDateTime::currentDateTimeUtc()));
    if (!replaced.problem.isEmpty())
        return failed(replaced.problem);
    if (!m_lastProblem.isEmpty())
        logLine(u"The state file %1 is written again."_s.arg(QDir::toNativeSeparators(m_path)));
    m_lastProblem.clear();
    m_retryMs = firstRetryMs;
    m_written = radios;
    m_everWritten = true;
    m_stale = false;
    m_identity = replaced.identity;
}

void StateFile::failed(const QString &problem)
{
    // Once per kind of failure, not at every try: the app shows the radios grey meanwhile,
    // nothing worse.
    if (problem != m_lastProblem)
        logLine(u"Cannot write the state file %1: %2; trying again until it can be written."_s.arg(
            QDir::toNativeSeparators(m_path), problem));
    m_lastProblem = problem;
    m_stale = true;
    if (!m_timer.isActive())
        m_timer.start(m_retryMs);
    m_retryMs = std::min(m_retryMs * 2, longestRetryMs);
}
