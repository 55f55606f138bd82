// vondral-nightly diff: what two nights have that differs.

#include "subcommands.h"

#include <cstdio>
#include <map>
#include <set>
#include <vector>

#include <CLI/CLI.hpp>

#include "config.h"
#include "contents.h"
#include "failure.h"
#include "judge.h"
#include "night.h"
#include "records.h"

namespace nightly {

namespace {

struct DiffOptions {
    std::string name, before, after;
    bool json = false;
};

// What a night has: files, and the entries of its archives.
struct NightContents {
    std::set<std::string> paths;
    std::map<std::string, EntryFacts> entries;
};

NightContents ReadContents(const Night& night) {
    if (!night.record)
        throw Failure(night.Name() + ": has no record; \"vondral-nightly run\" will judge it");
    NightContents contents;
    for (std::string& path : CatalogPaths(night.path))
        contents.paths.insert(std::move(path));
    std::vector<EntryFacts> entries;
    for (const std::string& archive : night.record->archives)
        ReadSums(night.File(SumsFileOf(archive)), entries);
    for (EntryFacts& entry : entries)
        contents.entries[entry.path] = std::move(entry);
    return contents;
}

struct Change {
    std::string path;
    const char* kind;
    Json before, after;
};

// What became of an entry that both nights have.
void AddEntryChange(const EntryFacts& before, const EntryFacts& after, std::vector<Change>& changes) {
    if (before.size != after.size)
        changes.push_back({after.path, after.size > before.size ? "larger" : "smaller", before.size, after.size});
    else if (before.digest != after.digest)
        changes.push_back({after.path, "other digest", before.digest, after.digest});
}

std::vector<Change> Compare(const NightContents& before, const NightContents& after) {
    std::vector<Change> changes;
    for (const std::string& path : after.paths)
        if (!before.paths.contains(path))
            changes.push_back({path, "added", nullptr, nullptr});
    for (const std::string& path : before.paths)
        if (!after.paths.contains(path))
            changes.push_back({path, "gone", nullptr, nullptr});
    for (const auto& [path, entry] : after.entries)
        if (const auto found = before.entries.find(path); found != before.entries.end())
            AddEntryChange(found->second, entry, changes);
    return changes;
}

int Diff(const std::string& configs, const DiffOptions& options) {
    const Config config = ReadConfig(configs, options.name);
    const std::vector<Night> nights = ListOwnNights(config);
    const Night& before = NamedNight(nights, options.before);
    const Night& after = NamedNight(nights, options.after);
    const std::vector<Change> changes = Compare(ReadContents(before), ReadContents(after));
    if (before.record->level != after.record->level)
        std::fprintf(stderr,
                     "vondral-nightly: %s is a %s night and %s a %s one: most of what is gone or added was "
                     "only not saved\n",
                     options.before.c_str(), LevelName(before.record->level), options.after.c_str(),
                     LevelName(after.record->level));
    Json records = Json::array();
    for (const Change& change : changes)
        records.push_back(
            {{"path", change.path}, {"change", change.kind}, {"before", change.before}, {"after", change.after}});
    if (options.json)
        PrintRecords(records);
    else
        for (const Change& change : changes)
            std::printf("%-12s  %s%s\n", change.kind, Shown(change.path).c_str(),
                        change.before.is_number()
                            ? (": " + change.before.dump() + " -> " + change.after.dump() + " bytes").c_str()
                            : "");
    return Good;
}

} // namespace

Action DeclareDiff(CLI::App& command, const std::string& configs) {
    static DiffOptions options;
    command.add_option("NAME", options.name, "the server")->required();
    command.add_option("BEFORE", options.before, "a night, such as 2026-11-21T220000Z")->required();
    command.add_option("AFTER", options.after, "another")->required();
    command.add_flag("--json", options.json, "print records for programs");
    return [&configs] { return Diff(configs, options); };
}

} // namespace nightly
