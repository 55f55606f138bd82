// vondral-nightly config, run, prune, drill and reindex.

#include "subcommands.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>

#include "config.h"
#include "drill.h"
#include "failure.h"
#include "history.h"
#include "hooks.h"
#include "night.h"
#include "process.h"
#include "prune.h"
#include "records.h"
#include "report_files.h"
#include "run.h"
#include "text.h"
#include "vondral_command.h"

namespace nightly {

namespace {

void PrintError(const std::string& text) {
    std::fprintf(stderr, "vondral-nightly: %s\n", Shown(text).c_str());
}

// Does what must not cost a night that is on disk; a failure is reported.
template <class Work>
void Try(const char* what, Work work) {
    try {
        work();
    } catch (const std::exception& trouble) {
        PrintError(std::string(what) + ": " + trouble.what());
    }
}

// The world as it is. `config` must outlive it.
World RealWorld(const Config& config, int lock) {
    World world;
    world.now = [] { return std::time(nullptr); };
    world.back_up = [&config, lock](const BackupRequest& request) {
        const std::vector<Night> nights = ListOwnNights(config);
        const Level level = request.cutoff ? Level::Changed : Level::Full;
        return RunBackup(config, request, lock, LastGood(nights, std::time(nullptr), level));
    };
    world.pause = Pause;
    world.stop_requested = StopRequested;
    world.run_hooks = [&config](HookKind kind, const HookFacts& facts) { RunHooks(config, kind, facts); };
    world.say = [](const std::string& line) {
        std::printf("%s\n", Shown(line).c_str());
        std::fflush(stdout);
    };
    world.report = [&config](const Night& night) {
        Disk disk;
        Try("report", [&] {
            const std::vector<Night> nights = ListOwnNights(config);
            WriteReports(disk, config, night, LastGood(nights, night.moment));
        });
    };
    world.record_history = [&config] {
        Try("history", [&] {
            const std::vector<Night> nights = ListOwnNights(config);
            const History history(config.directory, nights);
        });
    };
    return world;
}

// What a run would do.
int DescribeRun(const Config& config, const RunOptions& options) {
    const std::vector<Night> nights = ListOwnNights(config);
    const std::time_t now = std::time(nullptr);
    const NightPlan plan = PlanNight(nights, config, now, options.level);
    const std::string night = config.directory + "/" + NightName(now) + IncompleteSuffix + "/";
    const BackupRequest request{night + NightFiles::Archive,
                                night + NightFiles::Catalog,
                                night + NightFiles::Missed,
                                night + NightFiles::Log,
                                config.include,
                                config.exclude,
                                plan.cutoff,
                                config.timezone};
    std::printf("a %s night: %s\n", LevelName(plan.level), plan.why.c_str());
    for (const std::string& argument : BackupCommand(config, request).arguments)
        std::printf("%s ", Shown(argument).c_str());
    std::printf("\n");
    return Good;
}

int StatusOf(const Night& night) {
    switch (night.record->verdict) {
    case Verdict::Good:
        return Good;
    case Verdict::GoodWithGaps:
        return Gaps;
    case Verdict::Suspicious:
    case Verdict::Failed:
        break;
    }
    return Bad;
}

struct RunArguments {
    std::string name;
    RunOptions options;
    bool dry_run = false;
};

int Run(const std::string& configs, const RunArguments& arguments) {
    const Config config = ReadConfig(configs, arguments.name);
    if (arguments.dry_run)
        return DescribeRun(config, arguments.options);
    const Descriptor lock = LockNights(config.directory);
    CatchStopRequests();
    VondralCommand(config); // what is missing is said before anything is begun
    World world = RealWorld(config, lock.Get());
    return StatusOf(RunNight(world, config, arguments.options));
}

struct PruneArguments {
    std::string name;
    bool dry_run = false;
    bool json = false;
};

std::vector<std::string> ReasonsOf(const PruneDecision& decision) {
    if (decision.remove_records)
        return {"its records are older than keep.records"};
    if (!decision.night->has_archive)
        return {decision.night->removed ? "its archives were removed" : "it has no archive"};
    return decision.archives.reasons;
}

int PruneNights(const std::string& configs, const PruneArguments& arguments) {
    const Config config = ReadConfig(configs, arguments.name);
    Disk disk;
    Descriptor lock;
    if (!arguments.dry_run) {
        lock = LockNights(config.directory);
        FinishRemovals(disk, config.directory);
    }
    const std::vector<Night> nights = ListOwnNights(config);
    const std::time_t now = std::time(nullptr);
    const std::vector<PruneDecision> plan = PlanPruning(nights, config, now, std::nullopt);
    Json records = Json::array();
    for (const PruneDecision& decision : plan) {
        const bool keeps_archive = decision.night->has_archive && decision.archives.keep;
        records.push_back(
            {{"night", decision.night->Name()}, {"kept", keeps_archive}, {"reasons", ReasonsOf(decision)}});
        if (arguments.json || (!decision.night->has_archive && !decision.remove_records))
            continue;
        std::string reasons;
        for (const std::string& reason : ReasonsOf(decision))
            reasons += (reasons.empty() ? "" : "; ") + reason;
        std::printf("%s  %-7s  %s\n", decision.night->Name().c_str(),
                    keeps_archive             ? "keep"
                    : decision.remove_records ? "forget"
                                              : "remove",
                    Shown(reasons).c_str());
    }
    if (arguments.json)
        PrintRecords(records);
    if (!arguments.dry_run)
        Prune(disk, plan, now);
    return Good;
}

} // namespace

Action DeclareConfig(CLI::App& command, const std::string& configs) {
    static std::string name;
    command.add_option("NAME", name, "the server")->required();
    return [&configs] {
        std::fputs(ShowConfig(ReadConfig(configs, name)).c_str(), stdout);
        return static_cast<int>(Good);
    };
}

Action DeclareRun(CLI::App& command, const std::string& configs) {
    static RunArguments arguments;
    static const std::map<std::string, Level> levels{{"full", Level::Full}, {"changed", Level::Changed}};
    static std::string level;
    command.add_option("NAME", arguments.name, "the server")->required();
    command.add_option("--level", level, "full or changed, whatever the configuration says")
        ->type_name("LEVEL")
        ->check(CLI::Validator(
            [](const std::string& word) { return levels.contains(word) ? "" : word + " is not full or changed"; }, ""));
    command.add_flag("--accept-shrink", arguments.options.accept_shrink,
                     "believe a night that is much smaller than the last good one");
    command.add_flag("--dry-run", arguments.dry_run, "only print what would be run");
    return [&configs] {
        if (!level.empty())
            arguments.options.level = levels.at(level);
        return Run(configs, arguments);
    };
}

Action DeclarePrune(CLI::App& command, const std::string& configs) {
    static PruneArguments arguments;
    command.add_option("NAME", arguments.name, "the server")->required();
    command.add_flag("--dry-run", arguments.dry_run, "only print what stays and what goes, and why");
    command.add_flag("--json", arguments.json, "print records for programs");
    return [&configs] { return PruneNights(configs, arguments); };
}

Action DeclareDrill(CLI::App& command, const std::string& configs) {
    static std::string name;
    command.add_option("NAME", name, "the server")->required();
    return [&configs] {
        const Config config = ReadConfig(configs, name);
        const Descriptor lock = LockNights(config.directory);
        CatchStopRequests();
        Disk disk;
        return RunDrill(disk, config, std::time(nullptr));
    };
}

Action DeclareReindex(CLI::App& command, const std::string& configs) {
    static std::string name;
    command.add_option("NAME", name, "the server")->required();
    return [&configs] {
        const Config config = ReadConfig(configs, name);
        const Descriptor lock = LockNights(config.directory);
        const std::vector<Night> nights = ListOwnNights(config);
        History::Rebuild(config.directory, nights);
        std::printf("%zu nights\n", nights.size());
        return static_cast<int>(Good);
    };
}

} // namespace nightly
