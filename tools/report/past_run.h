// Compares a run with an earlier one by the names of their saves or entries. Names are stored as 64-bit hashes, eight
// bytes each, so that runs with millions of them can be compared; a collision is less likely than a broken disk.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "run.h"
#include "run_context.h"

namespace report {

struct PastRun {
    std::string path;                    // of its log
    Expectation expectation;             // of a run like it
    std::vector<std::uint64_t> complete; // sorted; saved or restored in full
    std::vector<std::uint64_t> missing;  // sorted; missing in whole or in part
};

// Reads the last run in the log at `path`. Returns false, with errno set, after a failure; ESPIPE for anything but a
// regular file, because it is read twice.
bool ReadPastRun(const std::string& path, PastRun& past);

// What changed between the two runs; names in the order of the logs.
struct Changes {
    static constexpr std::size_t MostNames = 1000; // of each kind

    struct Names {
        std::uint64_t count = 0;
        std::vector<std::string> names; // the first MostNames of them
    };
    Names newly_missing;     // missing now; complete or not reported then
    Names no_longer_missing; // complete now, missing then
    Names still_missing;     // missing in both
    Names no_longer_named;   // complete then, and not in this log: deleted, left out, or not reached

    std::vector<std::uint64_t> seen; // names of the new run
    std::uint64_t run_number = 0;    // of the new run in its log
};

// Processes the next result of the new run.
void AddChange(Changes& changes, const PastRun& past, const LoggedRun& run, const Result& result);

// Requires: AddChange was called for every result of the new run. Reads the old log again for the names that the new
// one no longer has. Returns false, with errno set, when that fails.
bool FinishChanges(Changes& changes, const PastRun& past, const LoggedRun& present);

} // namespace report
