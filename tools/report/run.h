// What the log says about a run so far. One thread feeds it line by line and may read it at any moment.
//
// Its memory is bounded however long the log is: sums, the workers, and the results that a reader looks for first. Each
// result is passed to the caller once, as soon as it is complete, so that the caller can keep them all.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "connection_fault.h"
#include "log_clock.h"
#include "log_line.h"
#include "result.h"

namespace report {

struct LoggedRun;

struct Worker {
    std::string_view doing; // a constant; "" when not known
    std::string name;       // of its current or last save or entry
    bool done = false;
    // The earliest start of its next save or entry, seconds after the first line of the log; nothing before it is
    // known.
    std::optional<double> free_since;
    std::string messages;                 // its failure messages since the last result
    std::string standing;                 // the reason why all its saves fail
    std::optional<ConnectionFault> fault; // during the save whose result comes next, or the current entry
    // About the save whose result comes next, or about the current entry:
    bool no_data = false, restored = false, failed = false;
    std::string partial; // what is missing of it
    // Reported, but the lines that follow may add its size and times.
    std::optional<Result> pending;
};

struct LoggedRun {
    static constexpr std::size_t MostWorkers = 64;
    static constexpr std::size_t MostMissing = 2000;
    static constexpr std::size_t MostLongest = 2000;
    static constexpr std::size_t MostLargest = 20;
    static constexpr std::size_t MostMessages = 100;
    static constexpr std::size_t MostFaults = 100;

    std::function<void(const LoggedRun&, const Result&)> on_result;

    Mode mode = Mode::Unknown;
    LogClock clock;
    std::uint64_t lines = 0;
    std::uint64_t not_understood = 0;
    std::uint64_t earlier_runs = 0; // in the same log; this is the last one

    bool listed = false;            // a backup has listed the server's files
    bool complete = false;          // "Backup Complete", or the last line of a restore
    bool ended = false;             // "Total Run Time", always the last line
    bool terminated = false;        // on request
    bool fatal = false;             // a message says that the run itself failed
    bool nothing_attempted = false; // "No objects attempted"
    bool has_commands = false;
    bool has_measurements = false; // sizes and times of saves or entries

    std::array<std::optional<double>, TotalCount> totals;
    std::array<std::uint64_t, OutcomeCount> counts{};
    double bytes = 0;              // of the saves so far
    std::uint64_t unexplained = 0; // entries not restored, without a line saying that they were left out on purpose
    std::map<int, Worker> workers;
    int reply_to = -1; // the thread whose message a line without a prefix belongs to

    std::vector<Result> missing;           // in the order of the log
    std::vector<Result> longest;           // a heap, see KeepGreatest
    std::vector<Result> largest;           // a heap, see KeepGreatest
    std::vector<std::string> messages;     // failure messages of the run itself
    std::vector<ConnectionFault> faults;   // in the order in which they ended
    std::uint64_t fault_count = 0;         // including those that are not kept
    std::uint64_t lasting_fault_count = 0; // of these, the ones that were not recovered

    std::optional<double> Get(Total total) const { return totals[static_cast<std::size_t>(total)]; }
    std::uint64_t Count(Outcome outcome) const { return counts[static_cast<std::size_t>(outcome)]; }
    bool HasSizes() const { return !largest.empty(); } // the log of a restore has only times
    std::uint64_t Results() const;                     // so far
    std::uint64_t Missing() const;                     // of these, missing in whole or in part
};

// Processes one line of the log, without its line end. When several runs were appended to one log, the run is the last
// of them: the first line of a run drops everything before it. If that line is unreadable, because it was appended to a
// line that was cut, the next line that cannot belong to the earlier run does.
void ProcessLogLine(LoggedRun& run, std::string_view line);

// Call at the end of the log: completes the results that are still pending.
void FinishRun(LoggedRun& run);

} // namespace report
