// Part of the systemctl stand-in (tests/fakes/systemctl): what systemd's user manager does to
// start a Type=notify unit, and a service stand-in that is ready at once.
//
//   unit-runner start UNIT-FILE JOURNAL MAIN-PID-FILE
//       Runs the unit's ExecStart= (systemd's quoting: "…" with backslash escapes, %% and $$)
//       in a session of its own, standard output and error appended to JOURNAL, NOTIFY_SOCKET
//       naming a socket of this runner, and waits up to TimeoutStartSec= (90 s unless given)
//       for READY=1 from the main process; messages from any other process are ignored, as
//       NotifyAccess=main makes systemd do. Ready: writes "PID STARTTIME" (the process's start
//       time from /proc, so that a reused id is never taken for it) to MAIN-PID-FILE, exits 0
//       and leaves the service running. The process ended first, or the time ran out (the
//       process is then killed): appends systemd's lines about it to JOURNAL, prints
//       systemctl's words on standard error and exits 1.
//   unit-runner serve
//       The service stand-in's main process: says READY=1 to NOTIFY_SOCKET, and STOPPING=1 at
//       SIGTERM or SIGINT, then ends; it ends by itself after ten minutes.

#include "NotifySocket.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;

struct Unit
{
    std::string name;
    std::string description;
    std::vector<std::string> command;
    int timeoutSeconds = 90;
};

std::string trimmed(const std::string &text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string replaceAll(std::string text, const std::string &from, const std::string &to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// A command line split as systemd splits ExecStart=: words apart at blanks, double or single
// quotes around a word, backslash escapes; %% is a percent sign and $$ a dollar sign.
std::vector<std::string> commandWords(const std::string &line)
{
    const std::string text = replaceAll(line, "%%", "%");
    std::vector<std::string> words;
    std::size_t at = 0;
    while (true) {
        while (at < text.size() && (text[at] == ' ' || text[at] == '\t'))
            ++at;
        if (at >= text.size())
            break;
        std::string word;
        char quote = 0;
        for (; at < text.size(); ++at) {
            const char c = text[at];
            if (c == '\\' && at + 1 < text.size()) {
                const char next = text[++at];
                word += next == 'n' ? '\n' : next == 't' ? '\t' : next;
            } else if (quote != 0 && c == quote) {
                quote = 0;
            } else if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
            } else if (quote == 0 && (c == ' ' || c == '\t')) {
                break;
            } else {
                word += c;
            }
        }
        words.push_back(replaceAll(word, "$$", "$"));
    }
    // The prefixes that change how systemd runs the command do not matter here.
    if (!words.empty())
        words.front().erase(0, words.front().find_first_not_of("-@:+!"));
    return words;
}

Unit readUnit(const std::string &path)
{
    Unit unit;
    const std::size_t slash = path.rfind('/');
    unit.name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::ifstream file(path);
    std::string line, section;
    while (std::getline(file, line)) {
        line = trimmed(line);
        if (!line.empty() && line.front() == '[') {
            section = line;
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string key = trimmed(line.substr(0, equals));
        const std::string value = trimmed(line.substr(equals + 1));
        if (section == "[Unit]" && key == "Description")
            unit.description = value;
        else if (section == "[Service]" && key == "ExecStart")
            unit.command = commandWords(value);
        else if (section == "[Service]" && key == "TimeoutStartSec")
            unit.timeoutSeconds = std::atoi(value.c_str()) > 0 ? std::atoi(value.c_str()) : unit.timeoutSeconds;
    }
    return unit;
}

void notifyManager(const char *message)
{
    const char *socketName = std::getenv("NOTIFY_SOCKET");
    sockaddr_un where;
    const socklen_t length = socketName ? notify::address(socketName, where) : 0;
    const int fd = length ? ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    if (fd < 0)
        return;
    ::sendto(fd, message, std::strlen(message), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&where), length);
    ::close(fd);
}

void appendTo(const std::string &journal, const std::string &line)
{
    std::ofstream(journal, std::ios::app) << line << '\n';
}

// Field 22 of /proc/PID/stat, the process's start time; empty when it is gone.
std::string startTime(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const std::size_t end = stat.rfind(')');
    if (end == std::string::npos)
        return {};
    std::istringstream fields(stat.substr(end + 2));
    std::string field;
    for (int index = 3; index <= 22 && fields >> field; ++index) {
    }
    return field;
}

std::string exitStatusName(int status)
{
    switch (status) {
    case 1: return "FAILURE";
    case 2: return "INVALIDARGUMENT";
    case 203: return "EXEC";
    default: return "n/a";
    }
}

// Whether READY=1 came from the main process in a message waiting at most 50 ms.
bool readyMessage(int fd, pid_t main, const Unit &unit, const std::string &journal)
{
    const notify::Message message = notify::receive(fd, 50);
    if (!message.received)
        return false;
    if (message.sender != main) {
        appendTo(journal, unit.name + ": Got notification message from PID " + std::to_string(message.sender)
                              + ", but reception only permitted for main PID " + std::to_string(main));
        return false;
    }
    std::istringstream lines(message.text);
    std::string line;
    while (std::getline(lines, line))
        if (line == "READY=1")
            return true;
    return false;
}

// systemd's lines in the journal, and systemctl's words, for a start that failed.
int startFailed(const Unit &unit, const std::string &journal, const std::string &result, const char *explanation)
{
    appendTo(journal, unit.name + ": Failed with result '" + result + "'.");
    appendTo(journal, "Failed to start " + unit.name + " - " + unit.description + ".");
    std::fprintf(stderr,
                 "Job for %s failed because %s.\nSee \"systemctl --user status %s\" and \"journalctl --user -xeu %s\" "
                 "for details.\n",
                 unit.name.c_str(), explanation, unit.name.c_str(), unit.name.c_str());
    return 1;
}

[[noreturn]] void runMain(const Unit &unit, const std::string &journal, const std::string &socketName)
{
    ::setsid();
    const int output = ::open(journal.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
    const int input = ::open("/dev/null", O_RDONLY);
    if (output < 0 || input < 0)
        ::_exit(209);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::setenv("NOTIFY_SOCKET", socketName.c_str(), 1);
    std::vector<char *> arguments;
    for (const std::string &word : unit.command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    if (!unit.command.empty())
        ::execv(arguments.front(), arguments.data());
    const std::string program = unit.command.empty() ? std::string("(no ExecStart=)") : unit.command.front();
    std::fprintf(stderr, "%s: Failed to execute %s: %s\n", unit.name.c_str(), program.c_str(), std::strerror(errno));
    ::_exit(203);
}

int start(const std::string &unitFile, const std::string &journal, const std::string &pidFile)
{
    const Unit unit = readUnit(unitFile);
    const std::string socketName = "@veldspar-stand-in-manager-" + std::to_string(::getpid());
    const int fd = notify::listen(socketName);
    if (fd < 0) {
        std::perror("unit-runner: notify socket");
        return 1;
    }
    const pid_t main = ::fork();
    if (main < 0) {
        std::perror("unit-runner: fork");
        return 1;
    }
    if (main == 0)
        runMain(unit, journal, socketName);

    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(unit.timeoutSeconds);
    while (Clock::now() < deadline) {
        if (readyMessage(fd, main, unit, journal)) {
            std::ofstream(pidFile) << main << ' ' << startTime(main) << '\n';
            return 0;
        }
        int status = 0;
        if (::waitpid(main, &status, WNOHANG) == main) {
            if (WIFSIGNALED(status)) {
                const char *signal = sigabbrev_np(WTERMSIG(status));
                appendTo(journal, unit.name + ": Main process exited, code=killed, status=" + std::to_string(WTERMSIG(status))
                                      + "/" + (signal ? signal : "n/a"));
                return startFailed(unit, journal, "signal", "a fatal signal was delivered to the control process");
            }
            appendTo(journal, unit.name + ": Main process exited, code=exited, status=" + std::to_string(WEXITSTATUS(status))
                                  + "/" + exitStatusName(WEXITSTATUS(status)));
            return startFailed(unit, journal, "exit-code", "the control process exited with error code");
        }
    }
    appendTo(journal, unit.name + ": start operation timed out. Terminating.");
    ::kill(-main, SIGTERM);
    const Clock::time_point killAt = Clock::now() + std::chrono::seconds(5);
    while (::waitpid(main, nullptr, WNOHANG) == 0) {
        if (Clock::now() >= killAt) {
            ::kill(-main, SIGKILL);
            ::waitpid(main, nullptr, 0);
            break;
        }
        ::usleep(20000);
    }
    return startFailed(unit, journal, "timeout", "a timeout was exceeded");
}

int serve()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGALRM);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    notifyManager("READY=1");
    ::alarm(600);
    int signal = 0;
    if (::sigwait(&ends, &signal) == 0 && signal != SIGALRM)
        notifyManager("STOPPING=1");
    return 0;
}
} // namespace

int main(int argc, char *argv[])
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 4 && arguments[0] == "start")
        return start(arguments[1], arguments[2], arguments[3]);
    if (arguments.size() == 1 && arguments[0] == "serve")
        return serve();
    std::fprintf(stderr, "usage: unit-runner start UNIT-FILE JOURNAL MAIN-PID-FILE | unit-runner serve\n");
    return 64;
}
