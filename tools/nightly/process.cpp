#include "process.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "disk.h"
#include "failure.h"
#include "resources.h"
#include "support.h"

namespace nightly {

namespace {

std::atomic<bool> stop_requested = false;
std::atomic<pid_t> running = 0;

void PassOn(int) {
    stop_requested = true;
    if (const pid_t child = running; child > 0)
        ::kill(child, SIGTERM);
}

// Everything that the child needs, made before fork(): after it only calls that signal handlers may use are safe.
struct Prepared {
    std::vector<std::string> texts; // of the environment
    std::vector<char*> arguments, environment;
    std::vector<std::pair<int, Descriptor>> files;

    explicit Prepared(const Command& command) {
        for (const std::string& argument : command.arguments)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        for (char** variable = ::environ; *variable != nullptr; ++variable) {
            const std::string text = *variable;
            if (!command.environment.contains(text.substr(0, text.find('='))))
                texts.push_back(text);
        }
        for (const auto& [name, value] : command.environment)
            texts.push_back(name + "=" + value);
        for (std::string& text : texts)
            environment.push_back(text.data());
        environment.push_back(nullptr);
        if (!command.output.empty())
            Open(STDOUT_FILENO, command.output);
        for (const auto& [number, path] : command.files)
            Open(number, path);
    }

private:
    // Far above the numbers that the command is given.
    void Open(int number, const std::string& path) {
        constexpr int lowest = 64;
        const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        files.emplace_back(number, Descriptor(file.IsOpen() ? ::fcntl(file.Get(), F_DUPFD_CLOEXEC, lowest) : -1));
        if (!files.back().second.IsOpen())
            throw Failure(ctar::WithReason(path));
    }
};

[[noreturn]] void FailChild() {
    ::_exit(127);
}

[[noreturn]] void BecomeCommand(const Command& command, const Prepared& prepared) {
    for (const int signal : {SIGTERM, SIGINT, SIGPIPE, SIGQUIT, SIGHUP})
        ::signal(signal, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Out of the terminal's foreground group: Ctrl-C reaches the child as the SIGTERM that this program passes on.
    ::setpgid(0, 0);
    // The lock moves out of the way of the descriptors that the command is given.
    const int lock = command.lock < 0 ? -1 : ::fcntl(command.lock, F_DUPFD, 64);
    if (command.lock >= 0 && lock < 0)
        FailChild();
    for (const auto& [number, file] : prepared.files)
        if (::dup2(file.Get(), number) < 0)
            FailChild();
    if (!command.output.empty() && ::dup2(STDOUT_FILENO, STDERR_FILENO) < 0)
        FailChild();
    ::execve(prepared.arguments[0], prepared.arguments.data(), prepared.environment.data());
    FailChild();
}

void SleepBriefly() {
    const timespec tenth{0, 100'000'000};
    ::nanosleep(&tenth, nullptr);
}

int ShellStatus(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int AwaitChild(const Command& command, pid_t child) {
    const double begun = SecondsNow();
    bool killed = false;
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(child, &status, WNOHANG);
        if (ended == child)
            return ShellStatus(status);
        if (ended < 0 && errno != EINTR)
            return 127;
        if (command.limit > 0 && !killed && SecondsNow() - begun > command.limit) {
            ::kill(-child, SIGKILL);
            killed = true;
        }
        if (command.tick)
            command.tick();
        SleepBriefly();
    }
}

} // namespace

int RunCommand(const Command& command) {
    const Prepared prepared(command);
    // Until the child has its own handlers, a signal would be swallowed by ours.
    sigset_t stops, before;
    ::sigemptyset(&stops);
    ::sigaddset(&stops, SIGTERM);
    ::sigaddset(&stops, SIGINT);
    ::sigprocmask(SIG_BLOCK, &stops, &before);
    const pid_t child = ::fork();
    if (child < 0) {
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
        throw Failure(ctar::WithReason("fork"));
    }
    if (child == 0)
        BecomeCommand(command, prepared);
    running = command.heeds_stop ? child : 0;
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    if (stop_requested && command.heeds_stop) // it came before the child's number was known
        ::kill(child, SIGTERM);
    const int status = AwaitChild(command, child);
    running = 0;
    return status;
}

void CatchStopRequests() {
    struct sigaction action {};
    action.sa_handler = PassOn;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT})
        ::sigaction(signal, &action, nullptr);
}

bool StopRequested() {
    return stop_requested;
}

std::string FindProgram(const std::string& name) {
    std::error_code error;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", error);
    std::vector<std::string> directories{own.parent_path()};
    const char* const path = std::getenv("PATH");
    std::istringstream list(path == nullptr ? "" : path);
    for (std::string directory; std::getline(list, directory, ':');)
        directories.push_back(directory);
    for (const std::string& directory : directories) {
        const std::string candidate = directory + "/" + name;
        if (!directory.empty() && ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    throw Failure(name + ": not found beside this program nor along PATH (" + (path == nullptr ? "not set" : path) +
                  ")");
}

void Pause(std::int64_t seconds) {
    const double end = SecondsNow() + static_cast<double>(seconds);
    while (SecondsNow() < end && !StopRequested())
        SleepBriefly();
}

} // namespace nightly
