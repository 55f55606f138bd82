#include "restore_steps.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "commands.h"
#include "contents.h"
#include "copies.h"
#include "failure.h"
#include "judge.h"
#include "object_kind.h"
#include "path_file.h"
#include "process.h"
#include "report/log_line.h"
#include "resources.h"
#include "restore_plan.h"
#include "text.h"
#include "vondral_command.h"

namespace nightly {

namespace {

Stream OpenPathFile(const std::string& path) {
    if (path.empty())
        return nullptr;
    Stream file(std::fopen(path.c_str(), "re"));
    if (file == nullptr)
        throw Failure(ctar::WithReason(path));
    return file;
}

void AddMistakes(RestorePlan& plan, std::FILE* file, const std::string& what) {
    if (file == nullptr)
        return;
    for (const std::string& mistake : FindMistakes(file, PathFileUse::Restore))
        plan.mistakes.push_back(what + ": " + mistake);
}

// The two path files.
struct PathFiles {
    Stream include, exclude;
};

// Whether one of the paths is this one, or below it.
bool HasPathAt(const std::set<std::string>& paths, const std::string& path) {
    const auto below = paths.lower_bound(path + "/");
    return paths.contains(path) || (below != paths.end() && below->starts_with(path + "/"));
}

// `catalog` has the paths of the night: a part of an entry that it does not name is not in the archive.
void AddSteps(RestorePlan& plan, const std::string& archive, const std::string& entry, const PathFiles& files,
              const std::set<std::string>& catalog) {
    WantedParts wanted = SelectParts(entry, files.include.get(), files.exclude.get());
    wanted.parts.remove_if(
        [&](const StringPair& part) { return part.first != entry && !HasPathAt(catalog, part.first); });
    if (wanted.parts.empty())
        return;
    const RestoreMember& member = RestoreMemberFor(entry);
    const StringPair named = wanted.parts.front();
    std::string fault;
    if (member.library)
        fault = PrepareLibraryNames(wanted.parts.front());
    for (const StringPair& subject : RestoreSubjects(member, entry, wanted.parts)) {
        const std::string& path = member.library ? named.first : subject.first;
        const std::string command = BuildRestoreCommand(member, subject, files.exclude.get(), Release::Other);
        plan.steps.push_back({archive, entry, path, (member.library ? named.second : subject.second).value_or(""),
                              command, IsTooLong(command) && fault.empty() ? "the command is too long" : fault,
                              MaskControls(subject.first)});
    }
    plan.security_data = plan.security_data || entry == SecurityDataPath;
    if (plan.security_data)
        plan.authorities = RestoreAuthorityCommand;
    plan.configuration = plan.configuration || entry == ConfigurationPath;
    if (plan.archives.empty() || plan.archives.back() != archive)
        plan.archives.push_back(archive);
}

// Lines of the include file that no path in the chain matches.
std::vector<std::string> FindUnmatched(const PathFiles& files, const std::set<std::string>& paths) {
    std::vector<std::string> unmatched;
    if (files.include == nullptr || std::fseek(files.include.get(), 0, SEEK_SET) != 0)
        return unmatched;
    std::string line;
    while (ReadPathLine(line, files.include.get())) {
        std::string path = line.substr(0, line.find(" :: "));
        while (path.size() > 1 && path.ends_with('/'))
            path.pop_back();
        if (path != "\n" && (IsPattern(path) || !HasPathAt(paths, path)))
            unmatched.push_back(line + (HasWildCard(path) ? " (a restore ignores lines with wild cards)"
                                        : IsPattern(path) ? " (in such a line \"[\" and \"\\\" begin a pattern)"
                                                          : ""));
    }
    return unmatched;
}

void FindReturning(RestorePlan& plan, const std::vector<Night>& nights, const std::set<std::string>& paths) {
    for (const Night& night : nights)
        if (night.IsGood() && night.record->level == Level::Full && night.moment > plan.chain.front()->moment)
            plan.newest_full = &night;
    if (plan.newest_full == nullptr)
        return;
    std::set<std::string> present, restored;
    for (std::string& path : CatalogPaths(plan.newest_full->path))
        present.insert(std::move(path));
    for (const RestoreStep& step : plan.steps)
        restored.insert(step.path);
    for (const std::string& path : paths)
        if (!present.contains(path) && IsWithin(restored, path))
            plan.returning.push_back(path);
}

} // namespace

RestorePlan PlanRestore(const std::vector<Night>& nights, const Night& night, const RestoreRules& rules) {
    RestorePlan plan;
    plan.chain = ChainOf(nights, night);
    if (plan.chain.empty())
        throw Failure(night.Name() + ": cannot be restored: " +
                      (night.removed        ? "retention removed its archives"
                       : !night.has_archive ? "its archives are gone"
                                            : "an archive that it builds on is gone"));
    const PathFiles files{OpenPathFile(rules.include), OpenPathFile(rules.exclude)};
    AddMistakes(plan, files.include.get(), "include file");
    AddMistakes(plan, files.exclude.get(), "exclude file");
    std::set<std::string> paths; // of the catalogs
    std::set<std::string> entries;
    for (const Night* const link : plan.chain) {
        std::set<std::string> catalog;
        for (std::string& path : CatalogPaths(link->path))
            catalog.insert(std::move(path));
        paths.insert(catalog.begin(), catalog.end());
        for (const std::string& archive : link->record->archives) {
            const ArchiveContents contents = ReadArchive(link->File(archive), Digests::Skip);
            if (!contents.fault.empty())
                throw Failure(link->File(archive) + ": " + contents.fault +
                              "; take another night, or what \"ctar salvage\" makes of this archive");
            for (const EntryFacts& entry : contents.entries) {
                AddSteps(plan, link->File(archive), entry.path, files, catalog);
                entries.insert(entry.path);
            }
        }
    }
    FindReturning(plan, nights, paths);
    paths.insert(entries.begin(), entries.end());
    plan.unmatched = FindUnmatched(files, paths);
    return plan;
}

RestoreOutcome RunRestore(const Config& config, const RestoreRun& run) {
    Command command;
    command.arguments = VondralCommand(config, run.server);
    const auto add = [&command](const char* option, const std::string& value) {
        if (!value.empty())
            command.arguments.insert(command.arguments.end(), {option, value});
    };
    add("--restore", run.archive);
    add("--include", run.rules.include);
    add("--exclude", run.rules.exclude);
    command.output = run.log;
    RestoreOutcome outcome;
    LogFollower follower(run.log, [&](std::string_view line) {
        std::printf("%.*s\n", static_cast<int>(line.size()), line.data());
        const report::LogLine parsed = report::ParseLogLine(line);
        if (parsed.kind == report::LineKind::Restored)
            outcome.successes.emplace_back(parsed.text);
    });
    command.tick = [&] {
        follower.Follow();
        std::fflush(stdout);
    };
    outcome.status = RunCommand(command);
    follower.Finish();
    std::fflush(stdout);
    return outcome;
}

} // namespace nightly
