#include "command.h"

#include <cerrno>
#include <cstring>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tls {

sigset_t EndSignals() {
    sigset_t ends{};
    ::sigemptyset(&ends);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&ends, signal);
    return ends;
}

std::vector<std::string> SubstituteAddress(std::vector<std::string> words, const std::string& address) {
    for (std::string& word : words)
        for (std::size_t at = word.find("{}"); at != word.npos; at = word.find("{}", at + address.size()))
            word.replace(at, 2, address);
    return words;
}

namespace {

// The command starts with no signal blocked, and SIGPIPE as it was before this program ignored it. Returns errno's
// value, 0 for success.
int Spawn(const std::vector<std::string>& words, pid_t& process) {
    std::vector<char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    sigset_t none{};
    sigset_t pipe{};
    ::sigemptyset(&none);
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &pipe);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = ::posix_spawnp(&process, arguments[0], nullptr, &attributes, arguments.data(), ::environ);
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

} // namespace

int RunCommand(const std::vector<std::string>& words, std::string& error) {
    constexpr int cannot_start = 127; // as a shell has it
    pid_t process = -1;
    if (const int failure = Spawn(words, process); failure != 0) {
        error = words[0] + ": " + std::strerror(failure);
        return cannot_start;
    }
    sigset_t awaited = EndSignals();
    ::sigaddset(&awaited, SIGCHLD);
    int status = 0;
    while (::waitpid(process, &status, WNOHANG) != process) {
        int signal = 0;
        ::sigwait(&awaited, &signal);
        if (signal != SIGCHLD)
            ::kill(process, signal);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace tls
