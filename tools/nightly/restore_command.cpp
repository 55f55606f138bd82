// vondral-nightly plan and restore: what a restore would bring back, and doing exactly that.

#include "subcommands.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <vector>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "config.h"
#include "failure.h"
#include "moments.h"
#include "night.h"
#include "object_kind.h"
#include "process.h"
#include "records.h"
#include "restore_steps.h"
#include "run.h"
#include "text.h"

namespace nightly {

namespace {

struct RestoreOptions {
    std::string name, night;
    RestoreRules rules;
    bool json = false;
    bool yes = false;
};

void PrintSteps(const RestorePlan& plan) {
    std::string archive;
    std::size_t number = 0;
    for (const RestoreStep& step : plan.steps) {
        if (step.archive != archive)
            std::printf("from %s\n", step.archive.c_str());
        archive = step.archive;
        std::printf("%4zu  %s%s\n      %s\n", ++number, MaskControls(step.path).c_str(),
                    step.to.empty() ? "" : (" as " + MaskControls(step.to)).c_str(),
                    MaskControls(step.command).c_str());
        if (!step.fault.empty())
            std::printf("      THIS WILL FAIL: %s\n", step.fault.c_str());
    }
    if (plan.security_data)
        std::printf("      then the private authorities: %s\n", plan.authorities.c_str());
}

void PrintRemarks(const RestorePlan& plan) {
    if (plan.security_data || plan.configuration)
        std::printf("*** WARNING: %s part of this restore. User profiles that do not exist are created. To leave "
                    "them alone, give -e a file with the lines \"%s\" and \"%s\".\n",
                    plan.security_data && plan.configuration ? "security data and configuration are"
                    : plan.security_data                     ? "security data is"
                                                             : "configuration is",
                    std::string(SecurityDataPath).c_str(), std::string(ConfigurationPath).c_str());
    for (const std::string& mistake : plan.mistakes)
        std::printf("*** %s\n", MaskControls(mistake).c_str());
    for (const std::string& line : plan.unmatched)
        std::printf("*** nothing matches the include line: %s\n", MaskControls(line).c_str());
    constexpr std::size_t most = 20;
    for (std::size_t i = 0; i < std::min(plan.returning.size(), most); ++i)
        std::printf("*** deleted since, and would come back: %s\n", MaskControls(plan.returning[i]).c_str());
    if (plan.returning.size() > most)
        std::printf("*** and %zu more that %s no longer found on the server\n", plan.returning.size() - most,
                    plan.newest_full->Name().c_str());
    if (plan.newest_full == nullptr && plan.chain.size() > 1)
        std::printf("*** objects that were deleted after %s would come back: no later full night tells which\n",
                    plan.chain.front()->Name().c_str());
}

void PrintPlan(const Config& config, const RestorePlan& plan) {
    std::string chain;
    for (const Night* const night : plan.chain)
        chain += (chain.empty() ? "" : ", then ") + night->Name() + " (" + LevelName(night->record->level) + ")";
    std::printf("to %s, from %s\n", config.server.c_str(), chain.c_str());
    PrintSteps(plan);
    PrintRemarks(plan);
    std::printf("%zu object%s from %zu archive%s\n", plan.steps.size(), plan.steps.size() == 1 ? "" : "s",
                plan.archives.size(), plan.archives.size() == 1 ? "" : "s");
}

Json RecordsOf(const RestorePlan& plan) {
    Json records = Json::array();
    for (const RestoreStep& step : plan.steps)
        records.push_back({{"step", records.size() + 1},
                           {"archive", step.archive},
                           {"entry", step.entry},
                           {"path", step.path},
                           {"to", step.to.empty() ? Json(nullptr) : Json(step.to)},
                           {"command", step.command}});
    return records;
}

int Plan(const std::string& configs, const RestoreOptions& options) {
    const Config config = ReadConfig(configs, options.name);
    const std::vector<Night> nights = ListOwnNights(config);
    const RestorePlan plan = PlanRestore(nights, NamedNight(nights, options.night), options.rules);
    if (options.json)
        PrintRecords(RecordsOf(plan));
    else
        PrintPlan(config, plan);
    return plan.steps.empty() ? Gaps : Good;
}

bool IsConfirmed(const Config& config, const RestoreOptions& options) {
    if (options.yes)
        return true;
    if (::isatty(STDIN_FILENO) == 0) {
        std::fprintf(stderr, "vondral-nightly: standard input is no terminal: nothing is restored without --yes\n");
        return false;
    }
    std::printf("Type \"restore %s\" to begin: ", config.name.c_str());
    std::fflush(stdout);
    std::string answer;
    return std::getline(std::cin, answer) && answer == "restore " + config.name;
}

// What became of a restore.
struct Restored {
    std::vector<const RestoreStep*> missing; // steps that the log does not report as restored
    bool clean = true;                       // every run of vondral ended with 0
};

// An include file with just what is planned from one archive: other lines could name what it does not have.
std::string WriteInclude(const RestorePlan& plan, const std::string& archive, const std::string& path) {
    std::string text;
    for (const RestoreStep& step : plan.steps)
        if (step.archive == archive)
            text += step.path + (step.to.empty() ? "" : " :: " + step.to) + "\n";
    Disk().WriteFile(path, text);
    return path;
}

// Runs the restore archive by archive.
Restored RestoreAll(const Config& config, const RestorePlan& plan, const RestoreRules& rules) {
    Restored restored;
    const std::string log = config.directory + "/restore-" + NightName(std::time(nullptr));
    int number = 0;
    for (const std::string& archive : plan.archives) {
        RestoreOutcome outcome{};
        const std::string name = FormatText("%s.%d", log.c_str(), ++number);
        RestoreRun run{{}, archive, rules, name + ".log"};
        if (!rules.include.empty())
            run.rules.include = WriteInclude(plan, archive, name + ".include");
        if (!StopRequested())
            outcome = RunRestore(config, run);
        if (outcome.status != 0)
            std::fprintf(stderr, "vondral-nightly: vondral ended with %d: read %s\n", outcome.status, run.log.c_str());
        restored.clean = restored.clean && outcome.status == 0;
        for (const RestoreStep& step : plan.steps) {
            if (step.archive != archive)
                continue;
            const auto done = std::find(outcome.successes.begin(), outcome.successes.end(), step.success);
            if (done == outcome.successes.end())
                restored.missing.push_back(&step);
            else
                outcome.successes.erase(done);
        }
    }
    return restored;
}

int Restore(const std::string& configs, const RestoreOptions& options) {
    const Config config = ReadConfig(configs, options.name);
    // Held, so that no run lets a night go meanwhile.
    const Descriptor lock = LockNights(config.directory);
    const std::vector<Night> nights = ListOwnNights(config);
    const RestorePlan plan = PlanRestore(nights, NamedNight(nights, options.night), options.rules);
    PrintPlan(config, plan);
    if (plan.steps.empty())
        throw Failure("nothing to restore");
    if (!IsConfirmed(config, options)) {
        std::printf("nothing was restored\n");
        return Bad;
    }
    CatchStopRequests();
    const Restored restored = RestoreAll(config, plan, options.rules);
    for (const RestoreStep* const step : restored.missing)
        std::fprintf(stderr, "vondral-nightly: NOT RESTORED: %s from %s\n", MaskControls(step->path).c_str(),
                     step->archive.c_str());
    std::printf("%zu of %zu objects restored\n", plan.steps.size() - restored.missing.size(), plan.steps.size());
    return restored.missing.empty() && restored.clean ? Good : Bad;
}

void AddOptions(CLI::App& command, RestoreOptions& options) {
    command.add_option("NAME", options.name, "the server")->required();
    command.add_option("NIGHT", options.night, "such as 2026-11-21T220000Z; by default the newest good one");
    command.add_option("-i,--include", options.rules.include, "restore only what this path file names")
        ->type_name("FILE");
    command.add_option("-e,--exclude", options.rules.exclude, "leave out what this path file names")->type_name("FILE");
}

} // namespace

Action DeclarePlan(CLI::App& command, const std::string& configs) {
    static RestoreOptions options;
    AddOptions(command, options);
    command.add_flag("--json", options.json, "print records for programs");
    return [&configs] { return Plan(configs, options); };
}

Action DeclareRestore(CLI::App& command, const std::string& configs) {
    static RestoreOptions options;
    AddOptions(command, options);
    command.add_flag("--yes", options.yes, "do not ask");
    return [&configs] { return Restore(configs, options); };
}

} // namespace nightly
