#include "run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <set>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>

#include "contents.h"
#include "copies.h"
#include "failure.h"
#include "judge.h"
#include "moments.h"
#include "object_kind.h"
#include "path_file.h"
#include "prune.h"
#include "text.h"

namespace nightly {

Descriptor LockNights(const std::string& directory) {
    // The directory itself: a file made for the purpose could belong to the wrong user.
    Descriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.IsOpen())
        throw Failure(ctar::WithReason(directory));
    if (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0)
        throw Failure(errno == EWOULDBLOCK ? directory + ": another run is at work" : ctar::WithReason(directory));
    return lock;
}

// The level of a night

namespace {

// When the day that was last due for a full night began, as a day number of UnitsOf().
std::int64_t LastFullDay(const Config& config, const CalendarUnits& today) {
    const std::vector<int>& days = config.level.full_days;
    std::int64_t back = 0;
    while (std::find(days.begin(), days.end(), (today.weekday + 7 - back) % 7) == days.end())
        ++back;
    return today.day - back;
}

// The night that a changed one can build on: of those that can be restored, the one that ran last. Names tell the same,
// unless the clock has jumped.
const Night* FindBase(const std::vector<Night>& nights, std::time_t now) {
    const Night* base = nullptr;
    for (const Night& night : nights)
        if (night.moment < now && night.IsGood() && !ChainOf(nights, night).empty() &&
            (base == nullptr || night.record->sequence > base->record->sequence))
            base = &night;
    return base;
}

// Why tonight has to be full; "" when it may be a changed night.
std::string WhyFull(const std::vector<Night>& nights, const Config& config, std::time_t now, const Night* base) {
    if (config.level.full_days.empty())
        return "every night is full";
    if (base == nullptr)
        return "there is no good full night with its archive to build on";
    const Night* const last = LastGood(nights, now, Level::Full);
    const std::int64_t due = LastFullDay(config, UnitsOf(now, config.timezone));
    if (last == nullptr || UnitsOf(last->moment, config.timezone).day < due)
        return "a full night is due";
    return "";
}

} // namespace

NightPlan PlanNight(const std::vector<Night>& nights, const Config& config, std::time_t now,
                    std::optional<Level> level) {
    NightPlan plan{};
    const Night* const base = FindBase(nights, now);
    plan.why = WhyFull(nights, config, now, base);
    if (level == Level::Full)
        plan.why = "as asked";
    if (level == Level::Changed) {
        if (base == nullptr)
            throw Failure("a changed night needs a good full one with its archive to build on");
        if (!config.knows_timezone)
            throw Failure("a changed night needs the key timezone: listings tell times in the server's zone");
        plan.why.clear();
    }
    if (!plan.why.empty())
        return plan;
    try {
        plan.carried = TrustedMissed(*base);
    } catch (const Failure& damaged) {
        if (level == Level::Changed)
            throw;
        plan.why = damaged.what();
        return plan;
    }
    plan.level = Level::Changed;
    plan.base = base;
    plan.cutoff = base->record->started - config.level.margin;
    plan.why = "builds on " + base->Name();
    return plan;
}

namespace {

// A run under way.
struct Run {
    World& world;
    const Config& config;
    const RunOptions& options;
    std::vector<Night> nights; // those before tonight
    NightPlan plan{};
    Night night{};
    int retries = 0;
    ExitStatuses statuses{};
    bool has_mistakes = false; // in a path file: a retry cannot fix that
    Judgement judgement{};

    bool IsSettled() const {
        return judgement.record.verdict == Verdict::Good || world.stop_requested() ||
               (judgement.ran_to_end && judgement.missed.empty()) || has_mistakes;
    }
};

// Empty lines of a path file: they match everything, or nothing.
void FindEmptyLines(const std::string& path, const char* meaning, std::vector<std::string>& mistakes) {
    if (path.empty())
        return;
    const Stream file(std::fopen(path.c_str(), "re"));
    if (file == nullptr)
        throw Failure(ctar::WithReason(path));
    std::string line;
    for (int number = 1; ReadLine(file.get(), PathLineCapacity, line); ++number)
        if (line == "\n")
            mistakes.push_back(FormatText("%s: line %d is empty and %s: remove it", path.c_str(), number, meaning));
}

// What the nights have that a changed one builds on, read when it is first asked for.
class BaseContents {
public:
    explicit BaseContents(std::vector<const Night*> nights) : chain_(std::move(nights)) {}

    // Whether a listing leaves out what the include line names when it has not changed: files, of which the base has
    // one. Directories and libraries are listed whatever their age.
    bool HasFiles(const std::string& line) {
        if (!chain_.empty())
            ReadChain();
        if (ClassifyPath(line) == ObjectKind::Library)
            return false;
        if (!IsPattern(line)) {
            const auto below = std::lower_bound(paths_.begin(), paths_.end(), line + "/");
            return std::binary_search(paths_.begin(), paths_.end(), line) &&
                   (below == paths_.end() || !below->starts_with(line + "/"));
        }
        const auto count = [&](int flags) {
            return std::count_if(paths_.begin(), paths_.end(), [&line, flags](const std::string& path) {
                return ::fnmatch(line.c_str(), path.c_str(), flags) == 0;
            });
        };
        const auto files = count(FNM_PATHNAME);
        return files > 0 && files == count(PathMatchFlags);
    }

private:
    void ReadChain() {
        for (const Night* const night : chain_) {
            std::vector<std::string> covered = CoveredPaths(night->path, night->record->archives);
            std::move(covered.begin(), covered.end(), std::back_inserter(paths_));
        }
        std::sort(paths_.begin(), paths_.end());
        chain_.clear();
    }

    std::vector<const Night*> chain_; // until it has been read
    std::vector<std::string> paths_;  // sorted
};

JudgeRules RulesFor(const Run& run) {
    const Config& config = run.config;
    JudgeRules rules;
    rules.tolerate = config.tolerate;
    rules.max_shrink = config.max_shrink;
    if (run.plan.level == Level::Changed)
        rules.max_shrink = config.level.max_shrink.value_or(config.max_shrink);
    rules.accept_shrink = run.options.accept_shrink;
    rules.like = LastGood(run.nights, run.night.moment, run.plan.level);
    FindEmptyLines(config.include, "names no object", rules.mistakes);
    FindEmptyLines(config.exclude, "excludes the whole server", rules.mistakes);
    if (const Night* const last = LastGood(run.nights, run.night.moment))
        for (const MissedLine& line : ReadMissed(last->File(NightFiles::Missed)))
            rules.known_missed.insert(line.path);
    rules.carried = run.plan.carried;
    if (run.plan.base != nullptr)
        rules.is_in_base = [base = BaseContents(ChainOf(run.nights, *run.plan.base))](const std::string& line) mutable {
            return base.HasFiles(line);
        };
    return rules;
}

// The attempts

BackupRequest RequestFor(const Run& run, int retry) {
    const auto file = [&](const char* name) { return run.night.File(AttemptFile(name, retry)); };
    BackupRequest request{file(NightFiles::Archive), file(NightFiles::Catalog), file(NightFiles::Missed),
                          file(NightFiles::Log),     run.config.include,        run.config.exclude,
                          run.plan.cutoff,           run.config.timezone};
    if (IsPartialRetry(run.night.path, retry)) {
        request.include = IncludeFileOf(run.night.path, retry);
        request.exclude = file("exclude");
        request.cutoff.reset(); // what was missed is saved whatever its age
    }
    return request;
}

// The path files of a retry that saves only these. Security data and configuration are always included, so they are
// excluded unless they were missed.
void WriteRetryPaths(Run& run, int retry, const std::vector<MissedLine>& missed) {
    std::set<std::string> paths;
    std::string include;
    for (const MissedLine& line : missed)
        if (paths.insert(line.path).second)
            include += line.path + "\n";
    std::string exclude = run.config.exclude.empty() ? "" : ReadSmallFile(run.config.exclude);
    if (!exclude.empty() && !exclude.ends_with('\n'))
        exclude += '\n';
    for (const std::string_view special : {SecurityDataPath, ConfigurationPath})
        if (!paths.contains(std::string(special)))
            exclude += std::string(special) + "\n";
    run.world.disk.WriteFile(run.night.File(AttemptFile("exclude", retry)), exclude);
    run.world.disk.WriteFile(IncludeFileOf(run.night.path, retry), include);
}

void Attempt(Run& run, const JudgeRules& rules) {
    // A request to stop may have come before vondral could hear it.
    run.statuses.last = run.world.stop_requested() ? 128 + SIGTERM : run.world.back_up(RequestFor(run, run.retries));
    if (!IsPartialRetry(run.night.path, run.retries))
        run.statuses.whole = run.statuses.last;
    run.judgement = JudgeNight(run.night.path, run.retries, run.statuses, rules);
}

// An attempt at these names alone.
void AttemptNames(Run& run, const JudgeRules& rules, const std::vector<MissedLine>& names) {
    WriteRetryPaths(run, run.retries + 1, names);
    ++run.retries;
    Attempt(run, rules);
}

// An attempt at the whole night, which leaves out what has not changed since the night before: when it has reached its
// end, another one at what that missed. That costs no retry.
void AttemptWhole(Run& run, const JudgeRules& rules) {
    Attempt(run, rules);
    if (!run.plan.carried.empty() && run.judgement.ran_to_end && !run.world.stop_requested())
        AttemptNames(run, rules, run.plan.carried);
}

void Retry(Run& run, const JudgeRules& rules) {
    for (std::uint64_t tries = 0; !run.IsSettled() && tries < run.config.retries; ++tries) {
        run.world.say(FormatText("%s; retry %d of %llu in %s",
                                 run.judgement.record.reasons.empty() ? "not complete"
                                                                      : run.judgement.record.reasons.front().c_str(),
                                 static_cast<int>(tries + 1), Printable(run.config.retries),
                                 ShowSpan(static_cast<double>(run.config.retry_wait)).c_str()));
        run.world.pause(run.config.retry_wait);
        if (run.world.stop_requested())
            return;
        if (run.judgement.ran_to_end) {
            AttemptNames(run, rules, run.judgement.missed);
        } else {
            ++run.retries;
            AttemptWhole(run, rules);
        }
    }
}

// What follows the last attempt

// The list of what is missing after all attempts, in place of that of the first.
void WriteMissed(Run& run) {
    std::string text;
    for (const MissedLine& line : run.judgement.missed)
        text += "[00:00:00] [T00] " + line.text + "\n";
    if (run.retries > 0 || !run.judgement.record.catalog_is_covered || run.plan.level == Level::Changed)
        run.world.disk.WriteFile(run.night.File(NightFiles::Missed), text);
}

// Reads every byte of the archives. What cannot be read is no backup.
void WriteSums(Run& run) {
    NightRecord& record = run.judgement.record;
    for (const std::string& name : record.archives) {
        const ArchiveContents contents = ReadArchive(run.night.File(name), Digests::Compute);
        run.world.disk.WriteFile(run.night.File(SumsFileOf(name)), SumsText(contents));
        if (contents.fault.empty())
            continue;
        record.verdict = Verdict::Failed;
        record.reasons.push_back(name + ": " + contents.fault + ": check the disk");
    }
}

// What is known of the night before it has run.
void DescribeNight(const Run& run, NightRecord& record) {
    record.name = run.config.name;
    record.sequence = NextSequence(run.nights);
    record.server = run.config.server;
    record.level = run.plan.level;
    record.started = record.ended = run.night.moment;
    record.cutoff = run.plan.cutoff;
    if (run.plan.base != nullptr)
        record.base = run.plan.base->moment;
}

void BeginNight(Run& run) {
    NightRecord record;
    DescribeNight(run, record);
    run.world.disk.MakeDirectory(run.night.path);
    run.world.disk.WriteFile(run.night.File(NightFiles::Begun), EncodeRecord(record));
}

void FileRecord(Disk& disk, const Night& night, const NightRecord& record) {
    disk.WriteFile(night.File(NightFiles::Record), EncodeRecord(record));
    disk.Remove(night.File(NightFiles::Begun));
}

void WriteRecord(Run& run) {
    NightRecord& record = run.judgement.record;
    DescribeNight(run, record);
    record.ended = std::max(run.world.now(), run.night.moment);
    FileRecord(run.world.disk, run.night, record);
    run.night.record = record;
    run.night.has_archive = !record.archives.empty();
}

// Gives a good night its name, when everything in it is on disk.
void Publish(World& world, Night& night) {
    world.disk.SyncDirectory(night.path);
    const std::string path = night.path.substr(0, night.path.size() - std::string_view(IncompleteSuffix).size());
    world.disk.Rename(night.path, path);
    night.path = path;
    night.complete = true;
}

std::string Summarize(const Night& night, const std::string& zone) {
    const NightRecord& record = *night.record;
    const std::string text = FormatText("%s (%s): %s: ", night.Name().c_str(), ShowMoment(night.moment, zone).c_str(),
                                        VerdictName(record.verdict));
    if (record.attempted == 0 && record.objects == 0)
        return text + "nothing was saved";
    return text + FormatText("%llu files, %.3f MB in %s, %llu missing", Printable(record.objects),
                             static_cast<double>(record.bytes) / 1e6, ShowSpan(record.Seconds()).c_str(),
                             Printable(record.missing));
}

void LetOldNightsGo(Run& run) {
    const std::vector<Night> nights = ListOwnNights(run.config);
    const std::time_t now = run.world.now();
    for (const std::string& remark : FindOddNights(nights, now))
        run.world.say(remark);
    const std::vector<PruneDecision> plan = PlanPruning(nights, run.config, now, run.night.moment);
    for (const PruneDecision& decision : plan) {
        if (decision.night->has_archive && !decision.archives.keep)
            run.world.say(decision.night->Name() + ": removed: " + decision.archives.reasons.front());
    }
    Prune(run.world.disk, plan, now);
}

void Conclude(Run& run) {
    const std::string summary = Summarize(run.night, run.config.timezone);
    run.world.say(summary);
    for (const std::string& reason : run.night.record->reasons)
        run.world.say("  " + reason);
    LetOldNightsGo(run);
    run.world.record_history();
    std::string reasons;
    for (const std::string& reason : run.night.record->reasons)
        reasons += "; " + reason;
    run.world.run_hooks(run.night.IsGood() ? HookKind::Success : HookKind::Failure,
                        {run.night.Name(), VerdictName(run.night.record->verdict), summary + reasons,
                         run.night.File(NightFiles::Page), WholeLogOf(run.night)});
}

void SaveAndJudge(Run& run) {
    const JudgeRules rules = RulesFor(run);
    run.has_mistakes = !rules.mistakes.empty();
    BeginNight(run);
    AttemptWhole(run, rules);
    Retry(run, rules);
    WriteMissed(run);
    WriteSums(run);
    run.world.disk.SyncDirectory(run.night.path); // before the record says that all this is good
    WriteRecord(run);
    run.world.report(run.night);
    if (IsGood(run.judgement.record.verdict))
        Publish(run.world, run.night);
    else
        run.world.disk.SyncDirectory(run.night.path);
}

} // namespace

void FinishInterrupted(World& world, const Config& config) {
    FinishRemovals(world.disk, config.directory);
    for (Night& night : ListOwnNights(config)) {
        if (night.complete || night.foreign || night.removed)
            continue;
        if (night.record && IsGood(night.record->verdict)) {
            world.disk.Remove(night.File(NightFiles::Begun));
            Publish(world, night);
            world.say(night.Name() + ": good; an earlier run was killed before it could say so");
        }
        if (night.record || Exists(night.File(NightFiles::Record)))
            continue;
        int retries = 0;
        while (Exists(night.File(AttemptFile(NightFiles::Log, retries + 1))))
            ++retries;
        NightRecord record = JudgeNight(night.path, retries, {}, {}).record;
        record.name = config.name;
        record.sequence = NextSequence(ListNights(config.directory));
        record.server = config.server;
        record.started = record.ended = night.moment;
        if (const std::optional<NightRecord> begun = ReadRecord(night, NightFiles::Begun)) {
            record.level = begun->level;
            record.base = begun->base;
            record.cutoff = begun->cutoff;
        }
        record.verdict = Verdict::Failed;
        record.reasons.insert(record.reasons.begin(), "the run was killed");
        FileRecord(world.disk, night, record);
        world.say(night.Name() + ": failed: the run was killed");
    }
}

Night RunNight(World& world, const Config& config, const RunOptions& options) {
    Run run{.world = world, .config = config, .options = options, .nights = {}};
    const std::time_t now = world.now();
    run.night.moment = now;
    run.night.path = config.directory + "/" + NightName(now) + IncompleteSuffix;
    try {
        FinishInterrupted(world, config);
        run.nights = ListOwnNights(config);
        run.plan = PlanNight(run.nights, config, now, options.level);
        if (FindNight(run.nights, now) != nullptr)
            throw Failure(NightName(now) + ": there is a night of this name already; check the clock");
        world.say(FormatText("%s: %s night of %s: %s", NightName(now).c_str(), LevelName(run.plan.level),
                             config.server.c_str(), run.plan.why.c_str()));
        world.run_hooks(HookKind::Start,
                        {run.night.Name(), "running", FormatText("a %s night begins", LevelName(run.plan.level)),
                         run.night.File(NightFiles::Page), run.night.File(NightFiles::Log)});
        SaveAndJudge(run);
        Conclude(run);
    } catch (const std::exception& trouble) {
        world.run_hooks(HookKind::Failure, {run.night.Name(), "trouble", trouble.what(),
                                            run.night.File(NightFiles::Page), run.night.File(NightFiles::Log)});
        throw;
    }
    return run.night;
}

} // namespace nightly
