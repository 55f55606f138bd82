// One night: backs a server up, judges the result, retries what was missed, and lets old nights go.
//
// Whatever reaches out of the directory of nights is a function in World, so that a test can live a year in a minute.

#pragma once

#include <ctime>
#include <functional>
#include <optional>
#include <string>

#include "config.h"
#include "disk.h"
#include "judge.h"
#include "night.h"
#include "resources.h"

namespace nightly {

// What vondral is to save, and where to.
struct BackupRequest {
    std::string archive, catalog, missed, log; // files to write
    std::string include, exclude;              // path files, "" for none
    std::optional<std::time_t> cutoff;         // save what changed since
    std::string zone;                          // of the server's clock
};

enum class HookKind { Start, Success, Failure };
struct HookFacts {
    std::string night, verdict, summary, page, log; // the last two are paths
};

struct World {
    Disk disk;
    std::function<std::time_t()> now;
    std::function<int(const BackupRequest&)> back_up; // returns the exit status
    std::function<void(std::int64_t seconds)> pause;
    std::function<bool()> stop_requested;
    std::function<void(HookKind, const HookFacts&)> run_hooks;
    std::function<void(const std::string&)> say; // a line for the operator
    // Writes the night's page and the metrics, when the night has been judged. Its failures must not cost the night.
    std::function<void(const Night&)> report;
    // Enters the nights into the history. Its failures must not cost the night either.
    std::function<void()> record_history;
};

struct RunOptions {
    std::optional<Level> level; // instead of what the configuration says
    bool accept_shrink = false;
};

// Held by whoever changes a directory of nights; a running vondral inherits it. Throws Failure while another holds it.
Descriptor LockNights(const std::string& directory);

// What the next night would be.
struct NightPlan {
    Level level = Level::Full;
    const Night* base = nullptr;       // of a changed night
    std::optional<std::time_t> cutoff; // of a changed night
    std::vector<MissedLine> carried;   // what its base missed: saved too, whether it changed or not
    std::string why;                   // this level
};
NightPlan PlanNight(const std::vector<Night>& nights, const Config& config, std::time_t now,
                    std::optional<Level> level);

// Runs one night. Returns it as it is on disk afterwards. Throws Failure when this program itself had trouble; the
// directory of the night then stays incomplete. Requires: the lock.
Night RunNight(World& world, const Config& config, const RunOptions& options);

// Ends what a killed run left: removals that were begun, a night that only lacked its name, nights without a verdict.
void FinishInterrupted(World& world, const Config& config);

} // namespace nightly
