#include "support.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include <pthread.h>

const char* ProgramName = "vondral";
std::atomic<int> TerminationRequested{0};

namespace {

// Thread tags and log lines

struct RegistryEntry {
    std::uint32_t number;
    std::uint32_t identity;
};

// `count` counts registrations ever made and never falls, so that no number is given twice.
struct ThreadRegistry {
    std::uint32_t count = 0;
    std::vector<RegistryEntry> entries;
};

std::mutex LogLock; // guards Registry, and makes each log line whole

ThreadRegistry& Registry() {
    static ThreadRegistry registry;
    return registry;
}

std::uint32_t ThreadIdentity() {
    return static_cast<std::uint32_t>(pthread_self());
}

// Requires: LogLock is held.
std::uint32_t AddEntry(std::uint32_t number) {
    Registry().entries.push_back({number, ThreadIdentity()});
    ++Registry().count;
    return number;
}

// The calling thread's number; a thread that never registered gets the next one. Requires: LogLock is held.
std::uint32_t ThreadNumber(std::uint32_t identity) {
    for (const RegistryEntry& entry : Registry().entries)
        if (entry.identity == identity)
            return entry.number;
    return AddEntry(Registry().count);
}

// Requires: LogLock is held.
void RemoveEntry(std::uint32_t identity) {
    std::vector<RegistryEntry>& entries = Registry().entries;
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        if (entry->identity == identity) {
            entries.erase(entry);
            return;
        }
    }
}

__attribute__((format(printf, 2, 0))) void WriteLine(std::FILE* stream, const char* format, va_list arguments) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const std::lock_guard<std::mutex> lock(LogLock);
    std::fprintf(stream, "[%02d:%02d:%02d] ", local.tm_hour, local.tm_min, local.tm_sec);
    std::fprintf(stream, "[T%02u] ", ThreadNumber(ThreadIdentity()));
    std::vfprintf(stream, format, arguments);
}

} // namespace

void LogMessage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WriteLine(stdout, format, arguments);
    va_end(arguments);
}

void LogMessageTo(std::FILE* stream, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WriteLine(stream, format, arguments);
    va_end(arguments);
}

std::uint32_t RegisterThread() {
    const std::lock_guard<std::mutex> lock(LogLock);
    RemoveEntry(ThreadIdentity());
    return AddEntry(Registry().count);
}

// Failure messages

const char* SourceLocation::Module() const {
    const char* const slash = std::strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

void LogFailureAt(SourceLocation place, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = FormatArguments(format, arguments);
    va_end(arguments);
    LogMessageTo(stderr, "%s[%s,%d]: %s", ProgramName, place.Module(), place.line, text.c_str());
}

void LogError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = FormatArguments(format, arguments);
    va_end(arguments);
    LogMessageTo(stderr, "%s: %s", ProgramName, text.c_str());
}

double SecondsNow() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool IsWritten(std::FILE* stream, const char* name, SourceLocation place) {
    errno = EIO; // stays when an earlier write failed: its own reason is lost
    if (stream == nullptr || (std::fflush(stream) == 0 && std::ferror(stream) == 0))
        return true;
    LogFailureAt(place, "write(%s): %s\n", name, std::strerror(errno));
    return false;
}
