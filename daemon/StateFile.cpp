#include "daemon/StateFile.h"

#include "daemon/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr int shortestGapMs = 1000;

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

// Written to a temporary file (mkstemp makes it 0600) and renamed into place. Not synced: the
// file describes this run only and means nothing after a power cut. Returns why it failed, or
// an empty string.
QString replaceFile(const QString &path, const QByteArray &bytes)
{
    const QFileInfo info(path);
    QByteArray temporary = QFile::encodeName(info.absolutePath() + u"/."_s + info.fileName() + u".XXXXXX"_s);
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const bool written = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, bytes);
    const int error = errno;
    if (::close(fd) != 0 || !written) {
        ::unlink(temporary.constData());
        return QString::fromLocal8Bit(std::strerror(written ? errno : error));
    }
    if (::rename(temporary.constData(), QFile::encodeName(info.absoluteFilePath()).constData()) != 0) {
        const int renameError = errno;
        ::unlink(temporary.constData());
        return QString::fromLocal8Bit(std::strerror(renameError));
    }
    return {};
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
    : QObject(parent), m_path(path), m_collect(std::move(collect))
{
    m_timer.setSingleShot(true);
    // A coarse timer may fire a little early, and the gap is a promise.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &StateFile::write);
    changed();
}

StateFile::~StateFile()
{
    if (m_everWritten)
        QFile::remove(m_path);
}

void StateFile::changed()
{
    if (m_timer.isActive())
        return; // the coming write takes this change in too
    const qint64 sinceLast = m_lastWrite.isValid() ? m_lastWrite.elapsed() : shortestGapMs;
    m_timer.start(int(std::max<qint64>(0, shortestGapMs - sinceLast)));
}

bool StateFile::differsFromWritten(const QList<RadioLiveState> &radios) const
{
    if (!m_everWritten || radios.size() != m_written.size())
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
    const QString problem =
        replaceFile(m_path, liveStateDocument(radios, QCoreApplication::applicationPid(), QDateTime::currentDateTimeUtc()));
    if (!problem.isEmpty()) {
        // Once per kind of failure: the app shows the radios grey meanwhile, nothing worse.
        if (problem != m_lastProblem)
            logLine(u"Cannot write the state file %1: %2."_s.arg(QDir::toNativeSeparators(m_path), problem));
        m_lastProblem = problem;
        return;
    }
    m_lastProblem.clear();
    m_written = radios;
    m_everWritten = true;
}
