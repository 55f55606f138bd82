#include "support.h"

#include <cerrno>
#include <chrono>
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
std::uint32_t AppendEntry(std::uint32_t number) {
    Registry().entries.push_back({number, ThreadIdentity()});
    ++Registry().count;
    return number;
}

// The calling thread's number; a thread that never registered gets the next one. Requires: LogLock is held.
std::uint32_t ThreadNumber(std::uint32_t identity) {
    for (const RegistryEntry& entry : Registry().entries)
        if (entry.identity == identity)
            return entry.number;
    return AppendEntry(Registry().count);
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

std::uint32_t RegisterThread(int number) {
    const std::lock_guard<std::mutex> lock(LogLock);
    RemoveEntry(ThreadIdentity());
    return AppendEntry(number == -1 ? Registry().count : static_cast<std::uint32_t>(number));
}

void ClearThreadRegistry() {
    const std::lock_guard<std::mutex> lock(LogLock);
    Registry() = ThreadRegistry{};
}

// Texts of messages

namespace {

// Leaves errno alone, which most callers quote in the same message.
std::string Head(SourcePlace place, const char* separator, const char* end) {
    const int error = errno;
    const char* slash = std::strrchr(place.file, '/');
    const char* name = slash != nullptr ? slash + 1 : place.file;
    std::string head = std::string(ProgramName) + "[" + name + separator + std::to_string(place.line) + end;
    errno = error;
    return head;
}

} // namespace

std::string FailureHead(SourcePlace place) {
    return Head(place, ",", "]: ");
}

std::string ColonFailureHead(SourcePlace place) {
    return Head(place, ":", "] : ");
}

double SecondsNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

namespace {

constexpr int LargestUnit = 3;

ScaledAmount Scale(double amount, double limit, double step) {
    ScaledAmount scaled{amount, 0};
    while (scaled.value > limit && scaled.unit < LargestUnit) {
        scaled.value /= step;
        ++scaled.unit;
    }
    return scaled;
}

} // namespace

ScaledAmount ScaleDecimal(double amount) {
    return Scale(amount, 2000, 1000);
}

ScaledAmount ScaleBinary(double amount) {
    return Scale(amount, 2048, 1024);
}

bool IsWritten(std::FILE* stream, const char* name, SourcePlace place) {
    errno = EIO; // a failure further back has left no other reason
    if (stream == nullptr || (std::fflush(stream) == 0 && std::ferror(stream) == 0))
        return true;
    LogMessageTo(stderr, "%swrite(%s): %s\n", FailureHead(place).c_str(), name, std::strerror(errno));
    return false;
}
