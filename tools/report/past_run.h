// Comparing a run with an earlier one, by the names of their objects. Names are held as 64-bit hashes, eight bytes an
// object, so that runs of millions can be compared; that two names share one is less likely than a broken disk.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "run.h"

struct PastRun {
    std::string path;                   // of its log
    std::uint64_t objects = 0;          // that it reported
    std::vector<std::uint64_t> there;   // sorted: wholly saved or restored
    std::vector<std::uint64_t> missing; // sorted: reported, and not wholly
};

// Reads the log at `path`, a file. False, with errno set, when that fails.
bool ReadPastRun(const std::string& path, PastRun& past);

// What changed between the two, names in the order of their logs.
struct Changes {
    static constexpr std::size_t MostNames = 1000; // of each kind

    struct Names {
        std::uint64_t count = 0;
        std::vector<std::string> names; // the first of them
    };
    Names newly_missing;   // reported now and not wholly there, but there before or not known before
    Names there_again;     // now there, missing before
    Names still_missing;   // in both
    Names no_longer_named; // there before, and this log does not name it: gone, left out, or not reached

    std::vector<std::uint64_t> seen; // names of this run
    std::uint64_t run_number = 0;    // which run of this log
};

// Takes an object of the new run.
void NoteChange(Changes& changes, const PastRun& past, const LoggedRun& run, const ObjectResult& object);

// Requires: every object of the new run has been noted. Reads the old log once more for the names that are no longer
// there; false, with errno set, when that fails.
bool FinishChanges(Changes& changes, const PastRun& past, const LoggedRun& present);
