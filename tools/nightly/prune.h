// Removes the archives of nights that retention lets go, and in time their records. The caller holds the lock of the
// directory.

#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "disk.h"
#include "night.h"
#include "retention.h"

namespace nightly {

struct PruneDecision {
    const Night* night;
    Decision archives;           // "keep" and why; nights without archives have none
    bool remove_records = false; // its directory goes
};

// What retention says of each night. Throws Failure when a night cannot be read: nothing may be removed then.
std::vector<PruneDecision> PlanPruning(const std::vector<Night>& nights, const Config& config, std::time_t now,
                                       std::optional<std::time_t> tonight);

// Carries the decisions out. A kill at any step leaves the night as it was, or being removed; FinishRemovals() ends
// what was begun.
void Prune(Disk& disk, const std::vector<PruneDecision>& plan, std::time_t now);
void FinishRemovals(Disk& disk, const std::string& directory);

} // namespace nightly
