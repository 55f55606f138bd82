// Support library: log lines with thread tags, and the head of failure messages. Any thread may call the functions here
// at any time.

#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "resources.h"
#include "text.h"

// The last part of argv[0]; the first word of every message. Written once at start-up.
extern const char* ProgramName;

// Raised (bit 0) by the signal thread on SIGTERM and never lowered. Drivers look at it at safe points.
extern std::atomic<int> TerminationRequested;
constexpr int TerminatedStatus = 143; // exit status of a run that honoured it: 128 + SIGTERM, as a shell reports it

// Writes one log line, "[hh:mm:ss] [Tnn] " and the formatted text, to standard output or to `stream`. Adds no
// newline and does not flush. The whole call is one unit: lines of different threads never mix.
void LogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogMessageTo(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Registers the calling thread under the next free number, replacing an earlier registration. Returns the number. None
// is given twice in a run, so it also names what belongs to the thread elsewhere (a worker's save file on the server).
std::uint32_t RegisterThread();

// The place of a call. Stands in for std::source_location, which clang 14 lacks.
struct SourceLocation {
    const char* file;
    int line;
    static constexpr SourceLocation Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {file, line};
    }
    const char* Module() const; // the file's name without its directories
};

// Logs an internal failure on standard error: "program[module.cpp,line]: " and the text. LogFailure names the place of
// its own call; a helper that reports for several callers takes their location and passes it to LogFailureAt.
#define LogFailure(...) LogFailureAt(SourceLocation::Here(), __VA_ARGS__)
void LogFailureAt(SourceLocation place, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs what the user has to know on standard error: "program: " and the text.
void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Seconds on a clock that never jumps, for measuring durations.
double SecondsNow();

// Returns whether everything written to the stream has reached its file, and logs the reason in the caller's name when
// it has not. A missing stream has lost nothing.
bool IsWritten(std::FILE* stream, const char* name, SourceLocation place = SourceLocation::Here());
