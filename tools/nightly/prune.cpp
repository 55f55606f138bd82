#include "prune.h"

#include <algorithm>
#include <filesystem>

#include "copies.h"
#include "failure.h"
#include "moments.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;

std::vector<RetainedNight> FactsOf(const std::vector<Night>& nights, const Config& config, std::time_t now,
                                   std::optional<std::time_t> tonight) {
    const std::vector<CopyCount> copies = CountNewestCopies(nights, config.keep, now);
    std::vector<RetainedNight> facts;
    for (std::size_t i = 0; i < nights.size(); ++i) {
        const Night& night = nights[i];
        facts.push_back({.moment = night.moment,
                         .good = night.HasGoodVerdict(),
                         .has_archive = night.has_archive,
                         .foreign = night.foreign,
                         .tonight = tonight == night.moment,
                         .archive_gone = night.archive_gone,
                         .base = night.record ? night.record->base : std::nullopt,
                         .units = UnitsOf(night.moment, config.timezone),
                         .objects = night.HasGoodVerdict() ? night.record->objects : copies[i].contained,
                         .newest_copies = copies[i].objects,
                         .example = copies[i].example});
    }
    return facts;
}

// Whether the name is one that a night's directory may contain.
bool IsOurs(const std::string& name) {
    static const std::vector<std::string> plain{NightFiles::Archive, NightFiles::Catalog, NightFiles::Missed,
                                                NightFiles::Log,     NightFiles::Page,    NightFiles::Record,
                                                NightFiles::Sums,    NightFiles::Removed, NightFiles::Begun};
    static const std::vector<std::string> of_retries{"ctar", "catalog", "missed", "log", "include", "exclude", "sum"};
    std::string base = name;
    for (const char* const suffix : {RemovingSuffix, ".new"})
        if (base.ends_with(suffix))
            base.resize(base.size() - std::string_view(suffix).size());
    if (std::find(plain.begin(), plain.end(), base) != plain.end())
        return true;
    return base.size() > 7 && base.starts_with("retry") && base[6] == '.' &&
           std::find(of_retries.begin(), of_retries.end(), base.substr(7)) != of_retries.end();
}

std::vector<std::string> OurFiles(const std::string& directory) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
        if (const std::string name = entry.path().filename(); IsOurs(name) && !entry.is_directory())
            names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

// All archives are renamed before the first is removed: a night without one of them has none.
void RemoveArchives(Disk& disk, const std::string& directory) {
    for (const std::string& name : OurFiles(directory))
        if (name.ends_with(".ctar"))
            disk.Rename(directory + "/" + name, directory + "/" + name + RemovingSuffix);
    for (const std::string& name : OurFiles(directory))
        if (name.ends_with(RemovingSuffix))
            disk.Remove(directory + "/" + name);
}

// Whether the removal of its archives was begun.
bool HasRemovals(const std::string& directory) {
    const std::vector<std::string> names = OurFiles(directory);
    return std::any_of(names.begin(), names.end(),
                       [](const std::string& name) { return name.ends_with(RemovingSuffix); });
}

void RemoveFiles(Disk& disk, const std::string& directory) {
    for (const std::string& name : OurFiles(directory))
        disk.Remove(directory + "/" + name);
    // What somebody else put there keeps the directory.
    if (fs::is_empty(directory))
        disk.RemoveDirectory(directory);
}

} // namespace

std::vector<PruneDecision> PlanPruning(const std::vector<Night>& nights, const Config& config, std::time_t now,
                                       std::optional<std::time_t> tonight) {
    for (const Night& night : nights)
        if (night.IsBroken() && !night.removed)
            throw Failure(night.path +
                          ": its run.json is missing or damaged; nothing is removed until it is back, or the "
                          "night is moved away");
    const std::vector<RetainedNight> facts = FactsOf(nights, config, now, tonight);
    std::vector<Decision> decisions = DecideRetention(facts, config.keep, now);
    std::vector<PruneDecision> plan;
    for (std::size_t i = 0; i < nights.size(); ++i)
        plan.push_back({&nights[i], std::move(decisions[i])});
    for (const std::size_t i : FindOldRecords(facts, config.keep, now, ClockOf(nights, now)))
        plan[i].remove_records = true;
    return plan;
}

void Prune(Disk& disk, const std::vector<PruneDecision>& plan, std::time_t now) {
    // The newest first, so that a kill between two leaves no night without the ones that it builds on.
    for (auto decided = plan.rbegin(); decided != plan.rend(); ++decided) {
        const PruneDecision& decision = *decided;
        const Night& night = *decision.night;
        if (decision.remove_records) {
            disk.Rename(night.path, night.path + RemovingSuffix);
            RemoveFiles(disk, night.path + RemovingSuffix);
        } else if (night.has_archive && !decision.archives.keep) {
            RemoveArchives(disk, night.path);
            // Last, because a full disk has room for it only now.
            disk.WriteFile(night.File(NightFiles::Removed),
                           NightName(now) + ": " + decision.archives.reasons.front() + "\n");
        }
    }
}

void FinishRemovals(Disk& disk, const std::string& directory) {
    std::vector<std::string> records;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        std::string name = entry.path().filename();
        if (!entry.is_directory() || entry.is_symlink() || !name.ends_with(RemovingSuffix))
            continue;
        name.resize(name.size() - std::string_view(RemovingSuffix).size());
        if (name.ends_with(IncompleteSuffix))
            name.resize(name.size() - std::string_view(IncompleteSuffix).size());
        if (ParseNightName(name))
            records.push_back(entry.path());
    }
    for (const std::string& path : records)
        RemoveFiles(disk, path);
    for (const Night& night : ListNights(directory)) {
        if (night.foreign || !HasRemovals(night.path))
            continue;
        RemoveArchives(disk, night.path);
        if (!night.removed)
            disk.WriteFile(night.File(NightFiles::Removed), "a removal was interrupted\n");
    }
}

} // namespace nightly
