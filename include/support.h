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

// Seconds on a clock that never jumps, for measuring durations.
double SecondsNow();

// An amount brought into a readable range, and the index of its unit: 0 none, 1 kilo, 2 mega, 3 giga.
struct ScaledAmount {
    double value;
    int unit;
};
ScaledAmount ScaleDecimal(double amount); // divides by 1000 while above 2000: objects and restored amounts
ScaledAmount ScaleBinary(double amount);  // divides by 1024 while above 2048: totals of a run or a thread

// Whether all that was written to the stream has reached its file; reports it under the caller's place when not.
// No stream lacks nothing.
bool IsWritten(std::FILE* stream, const char* name, SourcePlace place = SourcePlace::Here());
