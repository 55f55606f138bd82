// What a run came to, as far as its log tells.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"

enum class Status {
    Complete,     // nothing failed; objects saved in part, or not found, do not count as failed
    WithFailures, // it came to its end, but objects or lines of listings failed
    Terminated,   // ended early, on request and orderly
    Failed,       // the run as such
    Unfinished,   // the log has no end: the run died, or is still going
    Unknown,      // it came to an end, but the log tells of neither a backup nor a restore
};
constexpr std::size_t StatusCount = 6;

Status StatusOf(const LoggedRun& run);
const char* StatusName(Status status); // "complete", "failures", "terminated", "failed", "unfinished", "unknown"

// What the program's exit status must have been by this log; nothing when that cannot be told.
std::optional<int> ExpectedExitStatus(const LoggedRun& run);

// How many objects came to an outcome, and how many are missing; nothing when the log does not tell.
std::optional<std::uint64_t> CountTold(const LoggedRun& run, ObjectOutcome outcome);
std::optional<std::uint64_t> MissingTold(const LoggedRun& run);

// Files that failed by the totals of a log that names none of their objects.
double UnnamedFailures(const LoggedRun& run);

// Sentences on what the log did not tell, for the want of verbosity, of standard error or of an end.
std::vector<std::string> Omissions(const LoggedRun& run);

// "complete: 9 objects saved, 2.892 MB in 3 s", in printable ASCII.
std::string Summary(const LoggedRun& run);
