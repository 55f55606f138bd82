// Support library: log lines with thread tags, the head of failure messages, and the owner types of system
// resources that every module uses. Any thread may call the functions here at any time.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

// The last part of argv[0]; the first word of every message. Written once at start-up.
extern const char* ProgramName;

// Raised (bit 0) by the signal thread on SIGTERM and never lowered. Drivers look at it at safe points.
extern std::atomic<int> TerminationRequested;

// Writes one log line, "[hh:mm:ss] [Tnn] " and the formatted text, to standard output or to `stream`. Adds no
// newline and does not flush. The whole call is one unit: lines of different threads never mix.
void LogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogMessageTo(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Registers the calling thread, replacing an earlier registration, under `number`, or under the next free
// number when it is -1. Returns the number. Numbers are never given twice in a run, so the result also names
// what belongs to the thread elsewhere (a worker's save file on the server).
std::uint32_t RegisterThread(int number);

// Forgets every registration; the next thread to log or register gets 0.
void ClearThreadRegistry();

// The place of a call. Stands in for std::source_location, which clang 14 lacks.
struct SourcePlace {
    const char* file;
    int line;
    static constexpr SourcePlace Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {file, line};
    }
};

// "program[module.cpp,line]: ", the head of every internal failure message, with the caller's own place.
std::string FailureHead(SourcePlace place = SourcePlace::Here());

// "program[module.cpp:line] : ", the head of the one message that is written this way.
std::string ColonFailureHead(SourcePlace place = SourcePlace::Here());

// The text that printf would write.
std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Seconds on a clock that never jumps, for measuring durations.
double SecondsNow();

// An amount brought into a readable range, and the index of its unit: 0 none, 1 kilo, 2 mega, 3 giga.
struct ScaledAmount {
    double value;
    int unit;
};
ScaledAmount ScaleDecimal(double amount); // divides by 1000 while above 2000: objects and restored amounts
ScaledAmount ScaleBinary(double amount);  // divides by 1024 while above 2048: totals of a run or a thread

// A new zeroed record, or nothing when memory is short: for records whose absence a caller reports.
template <class Record>
std::unique_ptr<Record> NewRecord() {
    try {
        return std::make_unique<Record>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The one owner of a file descriptor; -1 while there is none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other)
            Reset(std::exchange(other.value_, -1));
        return *this;
    }
    ~Descriptor() { Reset(); }

    int Get() const { return value_; }
    bool IsOpen() const { return value_ >= 0; }
    // Closes and gives the result of close(), -1 also when nothing was open. The descriptor is gone either
    // way.
    int Close();
    void Reset(int value = -1);

private:
    int value_ = -1;
};

// The one owner of anonymous private pages, readable and writable, zeroed when made.
class Mapping {
public:
    Mapping() = default;
    Mapping(Mapping&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Mapping();

    // Maps `size` bytes; false, with errno set, when the system refuses.
    bool Map(std::size_t size);
    char* Data() const { return data_; }
    explicit operator bool() const { return data_ != nullptr; }

private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
};

struct StreamCloser {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// Whether all that was written to the stream has reached its file; reports it under the caller's place when not.
// No stream lacks nothing.
bool IsWritten(std::FILE* stream, const char* name, SourcePlace place = SourcePlace::Here());
