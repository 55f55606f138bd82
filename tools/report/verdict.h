// How a run ended, as far as its log says.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"
#include "run_context.h"

namespace report {

enum class Status {
    Complete,     // nothing failed; what was saved in part, without data or not found does not count as failed
    WithFailures, // it reached its end, but saves, entries or lines of listings failed
    Terminated,   // ended early on request, in order
    Failed,       // the run itself failed
    Unfinished,   // the log has no end: the run died or is still going
    Unknown,      // it reached its end, but there is neither a backup nor a restore in the log
};
constexpr std::size_t StatusCount = 6;

Status StatusOf(const LoggedRun& run);
const char* StatusName(Status status); // "complete", "failures", "terminated", "failed", "unfinished", "unknown"

// The exit status that the program must have had according to the log; nothing when the log leaves it open.
std::optional<int> ExpectedExitStatus(const LoggedRun& run);

// The number of results with an outcome, and of missing ones; nothing when the log may lack some of them.
std::optional<std::uint64_t> KnownCount(const LoggedRun& run, Outcome outcome);
std::optional<std::uint64_t> KnownMissing(const LoggedRun& run);

// Files that failed according to the totals, when the log names no failed save or entry; else 0.
double UnnamedFailures(const LoggedRun& run);

// Sentences about what is not known, for lack of verbosity, of standard error or of an end, or not shown.
std::vector<std::string> Omissions(const LoggedRun& run, const RunContext& context);

// Whether the run counts as good: by its judgement, without one when its log is complete and nothing is known to be
// lost.
bool IsGood(const LoggedRun& run, const RunContext& context);

// "92 of 164 files missing (56.1 %)", or "none of 164 files missing".
std::string LossText(const TrueLoss& loss);

// "complete: 9 saves, 2.892 MB in 3 s", in printable ASCII.
std::string Summary(const LoggedRun& run, const RunContext& context);

} // namespace report
