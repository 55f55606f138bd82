// The picture of a run that its log lines draw, line by line. One thread feeds it and reads it, at any moment.
//
// What it holds is bounded, however long the log: sums, the workers, and of the objects those that a reader looks for
// first. Each object is handed on once, as soon as it is complete, so that a caller can keep them all.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "log_clock.h"
#include "log_line.h"
#include "object_result.h"

struct LoggedRun;

struct Worker {
    std::string_view doing; // a constant; "" when the log does not tell
    std::string object;     // that it is at, or else was at last
    bool done = false;
    // Where its next object may begin, seconds after the log's first line; nothing before the first one is told.
    std::optional<double> free_since;
    std::string said;     // its failure messages since the last object
    std::string standing; // why everything of it fails
    // Of the object whose result comes next, or the entry under way:
    bool no_data = false, restored = false, failed = false;
    std::string part; // what is missing of it
    // Reported; the lines that follow may give its figures.
    std::optional<ObjectResult> pending;
};

struct LoggedRun {
    static constexpr std::size_t MostWorkers = 64;
    static constexpr std::size_t MostMissing = 2000;
    static constexpr std::size_t MostDrawn = 2000; // the longest
    static constexpr std::size_t MostLargest = 20;
    static constexpr std::size_t MostMessages = 100;

    std::function<void(const LoggedRun&, const ObjectResult&)> on_object;

    Mode mode = Mode::Unknown;
    LogClock clock;
    std::uint64_t lines = 0;
    std::uint64_t not_understood = 0;
    std::uint64_t earlier_runs = 0; // in the same log; this is the last one

    bool listed = false;     // a backup knows what there is
    bool complete = false;   // "Backup Complete", or a restore's closing line
    bool ended = false;      // the last line of all came
    bool terminated = false; // on request
    bool fatal = false;      // a message tells that the run as such failed
    bool idle = false;       // there was nothing to do
    bool has_commands = false;
    bool has_figures = false; // sizes and seconds of the objects

    std::array<std::optional<double>, TotalCount> totals;
    std::array<std::uint64_t, OutcomeCount> counts{};
    double bytes = 0;              // of the objects so far
    std::uint64_t unexplained = 0; // entries not restored of which no line says that they are left out on purpose
    std::map<int, Worker> workers;
    int reply_to = -1; // the thread whose message an unprefixed line would belong to

    std::vector<ObjectResult> missing; // in order
    std::vector<ObjectResult> drawn;   // by KeepGreatest
    std::vector<ObjectResult> largest; // by KeepGreatest
    std::vector<std::string> messages; // failure messages of the run itself

    std::optional<double> Get(Total total) const { return totals[static_cast<std::size_t>(total)]; }
    std::uint64_t Count(ObjectOutcome outcome) const { return counts[static_cast<std::size_t>(outcome)]; }
    bool HasSizes() const { return !largest.empty(); } // a restore's log has times alone
    std::uint64_t Objects() const;                     // reported so far
    std::uint64_t Missing() const;                     // of those, not wholly there
};

// Takes one line of the log, without its line end. A log that several runs were appended to tells of the last one: with
// its first line all that was before is dropped. When that stands behind a line that was cut, the next one does it that
// cannot be of the run before.
void TakeLogLine(LoggedRun& run, std::string_view line);

// The log is at its end: hands on what was still waiting for figures.
void FinishRun(LoggedRun& run);
