// Random histories of nights: what retention may never do, checked against a model that knows only what was on the
// server and what is on disk.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "nightly/failure.h"
#include "nightly/retention.h"
#include "nightly/run.h"
#include "test_support.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;

constexpr std::time_t Day = 86400;

constexpr std::time_t Surely = 40 * Day; // what was seen since then must not be forgotten, even if the clock jumps

struct Killed {};

// What goes wrong in a night.
enum class Mishap {
    None,
    LockedObjects,     // saves of single objects fail, and the totals tell less than the truth
    LockedInPart,      // what is locked inside a directory is left out, and the status is 0
    EmptyLibrary,      // a library counts as saved, and the archive does not have it
    EverythingLeftOut, // an empty line in the exclude file
    NoConnection,
    DiesHalfway,
    DamagedArchive,
    ServerLost, // most objects are not listed
    Killed,     // this program, at some step
    DiskFails,  // at some step
    Count,
};

// What somebody does to the directory before a night.
enum class Meddling { None, DeletesNight, DeletesArchive, CopiesNight, CopiesAsIncomplete, DamagesFile, Count };

// One night, and what happens before it.
struct Script {
    unsigned changes = 0; // seed of what happens on the server
    Mishap mishap = Mishap::None;
    int step = 0; // of the mishap
    int days = 1; // since the last night
    int jump = 0; // days by which the clock jumps
    Meddling meddling = Meddling::None;
    unsigned victim = 0;
};

Script RandomScript(std::mt19937& random) {
    const auto one_in = [&random](unsigned many) { return random() % many == 0; };
    Script script;
    script.changes = static_cast<unsigned>(random());
    if (one_in(3))
        script.mishap = static_cast<Mishap>(random() % static_cast<unsigned>(Mishap::Count));
    script.step = static_cast<int>(random() % 40);
    script.days = one_in(12) ? 1 + static_cast<int>(random() % 30) : 1;
    if (one_in(15))
        script.jump = static_cast<int>(random() % 121) - 60;
    if (one_in(12))
        script.meddling = static_cast<Meddling>(random() % static_cast<unsigned>(Meddling::Count));
    script.victim = static_cast<unsigned>(random());
    return script;
}

// What an archive has: paths with the version that was saved.
using Contents = std::map<std::string, int>;

// What the model knows of a night that once ran.
struct Truth {
    Contents whole;        // saved in full
    Contents listed;       // what was there
    bool complete = false; // nothing was missing
    std::time_t true_time = 0;
    std::set<std::string> archives; // names of the sound ones
    std::set<std::string> damaged;  // what only the first archive has, which is damaged behind it
    std::set<std::string> possible; // what the archives may have, as far as their entries tell
    bool died = false;              // after it had saved /home
};

bool IsFile(const std::string& path) {
    return path.starts_with("/home/");
}

std::string EntryOf(const std::string& path) {
    return IsFile(path) ? "/home.savf" : path;
}

// The world of one history: a server, a directory, a clock.
class History {
public:
    History() : random_(1) {
        const fs::path memory = "/dev/shm"; // thousands of nights are flushed to disk
        root_ = fs::exists(memory) ? memory / fs::path(work_.path).filename() : work_.path;
        directory_ = (root_ / "nights").string();
        fs::create_directories(directory_);
        config_.name = config_.server = "office";
        config_.directory = directory_;
        config_.keep = {3, 4, 2, 2, 200 * Day, 100 * Day};
        WriteFile(directory_ + "/notes", "mine");
        fs::create_directories(directory_ + "/2026-01-01");
        WriteFile(directory_ + "/2026-01-01/archive.ctar", "mine too");
        for (const char* const path : {"/Security Data", "/QSYS.LIB/A.LIB", "/QSYS.LIB/B.LIB", "/home/x", "/home/y"})
            server_[path] = 1;
    }
    ~History() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    // Lives a night. Returns what is wrong afterwards; "" when nothing is.
    std::string Live(const Script& script);
    void UseLevels() {
        config_.level.full_days = {0, 3};
        config_.level.max_shrink = 1;
    }
    void TolerateGaps() { config_.tolerate = 0.9; }

private:
    void ChangeServer();
    void Meddle(const Script& script);
    int BackUp(const BackupRequest& request);
    std::string RunTonight();
    std::map<std::string, std::string> NewestCopies() const;
    std::string CheckCopies(const std::map<std::string, std::string>& before) const;
    std::string CheckNights() const;
    std::string CheckTonight(const Night& night) const;
    std::string PathOf(const std::string& name) const;
    bool HasArchives(const std::string& name) const;
    bool HasCopy(const std::string& name, const std::string& path) const;

    TempDir work_;
    fs::path root_;
    std::string directory_;
    Config config_;
    std::mt19937 random_;
    std::map<std::string, int> server_;
    std::set<std::string> locked_;
    std::time_t true_now_ = 1'790'000'000;
    std::time_t offset_ = 0; // of the clock
    Script script_;
    std::map<std::string, Truth> truths_; // by night name
    std::string damaged_, undamaged_;     // a file, and what it should contain
};

void History::ChangeServer() {
    static int next = 1;
    for (int i = 0; i < 3; ++i) {
        auto object = std::next(server_.begin(), static_cast<std::ptrdiff_t>(random_() % server_.size()));
        switch (random_() % 6) {
        case 0:
            server_[FormatText(random_() % 2 == 0 ? "/home/f%u" : "/QSYS.LIB/N%u.LIB", unsigned(random_() % 12))] =
                ++next;
            break;
        case 1:
            if (server_.size() > 3)
                server_.erase(object);
            break;
        default:
            object->second = ++next;
            break;
        }
    }
    locked_.clear();
    for (const auto& [path, version] : server_)
        if (random_() % 4 == 0)
            locked_.insert(path);
}

// The log, catalog and archive that vondral would leave.
int History::BackUp(const BackupRequest& request) {
    const bool is_retry = request.archive.find("retry") != std::string::npos;
    Truth truth;
    if (is_retry)
        truth = truths_[fs::path(request.archive).parent_path().filename().string().substr(0, 18)];
    truth.true_time = true_now_;
    const Mishap mishap = !is_retry ? script_.mishap : random_() % 3 == 0 ? Mishap::DiesHalfway : Mishap::None;
    const std::string wanted = is_retry && !request.include.empty() ? "\n" + ReadFile(request.include) : "";
    std::string log = "[02:00:00] [T00] Building Object Lists\n", catalog, home_catalog, home, missed;
    std::vector<ArchiveEntry> entries;
    int failed = 0;
    if (mishap == Mishap::NoConnection) {
        WriteFile(request.log, log + "[02:00:00] [T00] vondral[vondral.cpp,1]: login failed\n");
        WriteFile(request.missed, "");
        return 255;
    }
    const auto line = [](const std::string& text) { return "[02:00:01] [T01] " + text + "\n"; };
    Contents attempted;
    for (const auto& [path, version] : server_) {
        if (mishap == Mishap::EverythingLeftOut || (mishap == Mishap::ServerLost && random_() % 4 != 0))
            continue;
        if (!wanted.empty() && wanted.find("\n" + path + "\n") == wanted.npos &&
            !(IsFile(path) && wanted.find("\n/home\n") != wanted.npos))
            continue;
        attempted[path] = truth.listed[path] = version;
        const bool is_locked = locked_.contains(path);
        if (is_locked && mishap == Mishap::LockedObjects && !IsFile(path)) {
            missed += line(path);
            log += "[02:00:01] [T01] Backup Failure: " + path + "\n";
            ++failed;
            continue;
        }
        if (IsFile(path)) {
            if (is_locked && mishap == Mishap::LockedInPart)
                missed += line("/home: 1 objects not saved");
            home_catalog += line(path);
            home += path + " " + std::to_string(version) + "\n";
            continue;
        }
        catalog += line(path);
        log += line("Backup Success: " + path);
        if (is_locked && mishap == Mishap::EmptyLibrary)
            continue;
        entries.push_back({path, path + " " + std::to_string(version)});
    }
    const bool in_part = !missed.empty() && mishap == Mishap::LockedInPart;
    if (!home.empty() && mishap == Mishap::LockedObjects && random_() % 3 == 0) {
        // A directory that fails replaces the count of failures.
        failed = 1;
        missed += line("/home");
        home_catalog.clear();
    } else if (!home.empty()) {
        entries.insert(random_() % 2 == 0 ? entries.begin() : entries.end(), {"/home.savf", home});
    }
    catalog += home_catalog;
    log += FormatText("[02:00:02] [T00] ** Backup Complete\n[02:00:02] [T00] ** Parsing Errors : 0\n"
                      "[02:00:02] [T00] ** Total Objects Attempted: %zu\n"
                      "[02:00:02] [T00] ** Total Objects Failed   : %d\n"
                      "[02:00:02] [T00] ** Total Run Time: 1.0 seconds\n",
                      attempted.size(), failed);
    int status = failed == 0 ? 0 : 1;
    if (mishap == Mishap::DiesHalfway) {
        if (!is_retry)
            truth.listed.clear();
        entries.resize(entries.size() / 2);
        catalog.resize(catalog.size() / 2);
        log.resize(log.size() / 2);
        status = 137;
    }
    std::string archive = MakeArchive(entries);
    const bool is_damaged = mishap == Mishap::DamagedArchive && !entries.empty();
    if (is_damaged) { // within its last entry
        archive.resize(archive.size() - 512 - random_() % 200);
        entries.pop_back();
    } else {
        truth.archives.insert(fs::path(request.archive).filename());
    }
    for (const ArchiveEntry& entry : entries) {
        truth.died |= mishap == Mishap::DiesHalfway && entry.name == "/home.savf";
        for (const auto& [path, version] : attempted)
            if (EntryOf(path) == entry.name) {
                truth.possible.insert(path);
                if (!IsFile(path) || !in_part)
                    truth.whole[path] = version;
                truth.damaged.erase(path);
                if (is_damaged)
                    truth.damaged.insert(path);
            }
    }
    truth.complete = mishap != Mishap::DiesHalfway && !is_damaged && !truth.listed.empty() &&
                     truth.whole.size() == truth.listed.size();
    WriteFile(request.archive, archive);
    WriteFile(request.catalog, catalog);
    WriteFile(request.missed, missed);
    WriteFile(request.log, log);
    truths_[fs::path(request.archive).parent_path().filename().string().substr(0, 18)] = truth;
    return attempted.empty() ? 2 : status;
}

void History::Meddle(const Script& script) {
    if (!damaged_.empty() && fs::exists(damaged_)) // somebody put it right again
        WriteFile(damaged_, undamaged_);
    damaged_.clear();
    std::vector<Night> nights = ListNights(directory_);
    if (nights.empty() || script.meddling == Meddling::None)
        return;
    const Night& victim = nights[script.victim % nights.size()];
    if (script.meddling == Meddling::DeletesNight)
        fs::remove_all(victim.path);
    else if (script.meddling == Meddling::DeletesArchive)
        fs::remove(victim.File(NightFiles::Archive));
    else if (script.meddling == Meddling::CopiesAsIncomplete && victim.complete)
        fs::copy(victim.path, victim.path + IncompleteSuffix,
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    else if (script.meddling == Meddling::DamagesFile && victim.complete) {
        static constexpr const char* files[] = {NightFiles::Record, NightFiles::Catalog, NightFiles::Missed};
        damaged_ = victim.File(files[script.victim / 8 % 3]);
        undamaged_ = ReadFile(damaged_);
        WriteFile(damaged_, "junk\n" + undamaged_);
    } else if (script.meddling == Meddling::CopiesNight)
        fs::copy(victim.path, directory_ + "/" + NightName(victim.moment + (script.victim % 9 - 4) * Day / 2 + 7),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

// Of the night's directory, whichever name it has.
std::string History::PathOf(const std::string& name) const {
    const std::string path = directory_ + "/" + name;
    return fs::exists(path) ? path : path + IncompleteSuffix;
}

bool History::HasArchives(const std::string& name) const {
    const Truth& truth = truths_.at(name);
    return std::all_of(truth.archives.begin(), truth.archives.end(),
                       [&](const std::string& file) { return fs::exists(PathOf(name) + "/" + file); });
}

bool History::HasCopy(const std::string& name, const std::string& path) const {
    const Truth& truth = truths_.at(name);
    return truth.whole.contains(path) && HasArchives(name) &&
           (!truth.damaged.contains(path) || fs::exists(PathOf(name) + "/" + NightFiles::Archive));
}

// For each path that must not be forgotten: the night with its newest copy, among those on disk that count now. Copies
// in nights that do not lie in the future by our clock.
std::map<std::string, std::string> History::NewestCopies() const {
    std::map<std::string, std::string> newest;
    const std::string now = NightName(true_now_ + offset_);
    std::vector<std::pair<std::string, Truth>> nights(truths_.begin(), truths_.end());
    std::stable_sort(nights.begin(), nights.end(),
                     [](const auto& one, const auto& other) { return one.second.true_time < other.second.true_time; });
    for (const auto& [name, truth] : nights) {
        if (name > now || !fs::exists(PathOf(name) + "/run.json"))
            continue;
        for (const auto& [path, version] : truth.whole)
            if (HasCopy(name, path))
                newest[path] = name; // the last one stays
    }
    std::erase_if(newest, [this](const auto& copy) {
        return std::none_of(truths_.begin(), truths_.end(), [&](const auto& night) {
            return night.second.listed.contains(copy.first) && fs::exists(PathOf(night.first) + "/run.json") &&
                   true_now_ - night.second.true_time <= Surely;
        });
    });
    return newest;
}

std::string History::CheckCopies(const std::map<std::string, std::string>& before) const {
    const std::string now = NightName(true_now_ + offset_);
    for (const auto& [path, name] : before) {
        const Truth& lost = truths_.at(name);
        const bool has_failed = !fs::exists(directory_ + "/" + name) && fs::exists(PathOf(name));
        bool is_kept = HasCopy(name, path);
        for (const auto& [other, truth] : truths_) {
            const bool is_newer = truth.true_time > lost.true_time;
            // What a night that failed has is replaced by what may be a copy, and files without a name by the like.
            const bool may_have = has_failed && HasArchives(other) &&
                                  (truth.possible.contains(path) || (lost.died && truth.died && IsFile(path)));
            is_kept = is_kept || (is_newer && other <= now && (HasCopy(other, path) || may_have));
        }
        if (!is_kept)
            return "the newest good copy of " + path + ", in " + name + ", is gone";
    }
    return "";
}

std::string History::CheckTonight(const Night& night) const {
    const auto truth = truths_.find(night.Name());
    if (night.IsGood() && config_.tolerate == 0 && (truth == truths_.end() || !truth->second.complete))
        return night.Name() + " counts as good, but something is missing from it";
    if (!night.IsGood() && script_.mishap == Mishap::None && config_.max_shrink == 1 && config_.tolerate == 0)
        return night.Name() + " has everything, but does not count as good";
    if (night.record)
        for (const std::string& archive : night.record->archives)
            if (!fs::exists(night.File(archive)))
                return night.Name() + ": its own run removed its archive";
    return "";
}

// What is true of the directory after every run.
std::string History::CheckNights() const {
    if (ReadFile(directory_ + "/notes") != "mine" || ReadFile(directory_ + "/2026-01-01/archive.ctar") != "mine too")
        return "something outside the layout was touched";
    const std::vector<Night> nights = ListNights(directory_);
    for (const Night& night : nights)
        if (night.has_archive && !night.foreign && night.IsGood() && night.record->base) {
            const std::string base = NightName(*night.record->base);
            const Night* const found = FindNight(nights, *night.record->base);
            if (found != nullptr && found->removed)
                return night.Name() + " builds on " + base + ", whose archives were removed";
        }
    return "";
}

std::string History::RunTonight() {
    World world;
    int steps = 0;
    world.disk.before = [&](const char*, const std::string&) {
        if (script_.mishap == Mishap::Killed && steps++ == script_.step)
            throw Killed();
        if (script_.mishap == Mishap::DiskFails && steps++ >= script_.step)
            throw Failure("no space left");
    };
    world.now = [this] { return true_now_ + offset_; };
    world.back_up = [this](const BackupRequest& request) { return BackUp(request); };
    world.pause = [](std::int64_t) {};
    world.stop_requested = [] { return false; };
    world.run_hooks = [](HookKind, const HookFacts&) {};
    world.say = [](const std::string&) {};
    world.report = [](const Night&) {};
    world.record_history = [] {};
    try {
        return CheckTonight(RunNight(world, config_, {}));
    } catch (const Killed&) {
    } catch (const Failure&) {
    }
    return "";
}

std::string History::Live(const Script& script) {
    script_ = script;
    random_.seed(script.changes);
    true_now_ += script.days * Day;
    offset_ += script.jump * Day;
    if (random_() % 3 == 0) // clocks are put right again
        offset_ = script.jump * Day;
    ChangeServer();
    Meddle(script);
    config_.max_shrink = random_() % 2 == 0 ? 1 : 0.2;
    config_.retries = random_() % 3;
    const auto before = NewestCopies();
    std::string wrong = RunTonight();
    if (wrong.empty())
        wrong = CheckCopies(before);
    return wrong.empty() ? CheckNights() : wrong;
}

// Runs a history from its start. Returns the first thing that is wrong, and how many nights that took.
std::pair<std::string, std::size_t> Play(const std::vector<Script>& scripts, unsigned kind) {
    History history;
    if (kind % 2 == 1)
        history.UseLevels();
    if (kind / 2 == 1)
        history.TolerateGaps();
    for (std::size_t i = 0; i < scripts.size(); ++i)
        if (const std::string wrong = history.Live(scripts[i]); !wrong.empty())
            return {wrong, i + 1};
    return {"", scripts.size()};
}

// Leaves out every night without which the history still goes wrong.
std::vector<Script> Shrink(std::vector<Script> scripts, unsigned kind) {
    for (std::size_t i = scripts.size(); i-- > 0;) {
        std::vector<Script> fewer = scripts;
        fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
        if (!Play(fewer, kind).first.empty())
            scripts = std::move(fewer);
    }
    return scripts;
}

std::string Describe(const std::vector<Script>& scripts) {
    std::string text;
    for (const Script& script : scripts)
        text += FormatText("  changes %u, mishap %d at %d, %d days, clock %+d days, meddling %d of %u\n",
                           script.changes, static_cast<int>(script.mishap), script.step, script.days, script.jump,
                           static_cast<int>(script.meddling), script.victim);
    return text;
}

// How many nights are lived: a sample, or with VONDRAL_SWEEP=full many more. They have one thread and hardly a pointer,
// so the sanitizers see a few only.
std::size_t NightCount() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 1'000;
#else
    const char* const sweep = std::getenv("VONDRAL_SWEEP");
    return sweep != nullptr && std::string_view(sweep) == "full" ? 200'000 : 10'000;
#endif
}

class Years : public testing::TestWithParam<int> {};

TEST_P(Years, LoseNoCopy) {
    constexpr std::size_t length = 100, parts = 4;
    const unsigned first =
        std::getenv("NIGHTS_SEED") != nullptr ? static_cast<unsigned>(std::stoul(std::getenv("NIGHTS_SEED"))) : 1;
    for (std::size_t i = 0; i < NightCount() / length / parts; ++i) {
        const unsigned seed = first + static_cast<unsigned>(i * parts) + static_cast<unsigned>(GetParam());
        std::mt19937 random(seed);
        std::vector<Script> scripts(length);
        for (Script& script : scripts)
            script = RandomScript(random);
        const unsigned kind = seed % 4; // 1: with levels, 2: with tolerated gaps, 3: with both
        const auto [wrong, nights] = Play(scripts, kind);
        if (wrong.empty())
            continue;
        scripts.resize(nights);
        scripts = Shrink(scripts, kind);
        FAIL() << "seed " << seed << ", kind " << kind << ": " << Play(scripts, kind).first << "\n"
               << Describe(scripts);
    }
}

INSTANTIATE_TEST_SUITE_P(Nights, Years, testing::Range(0, 4));

// The rules alone

constexpr std::time_t Now = 1'800'000'000;

std::vector<RetainedNight> RandomNights(std::mt19937& random) {
    std::vector<RetainedNight> nights(1 + random() % 12);
    std::time_t moment = Now - static_cast<std::time_t>(random() % 20) * Day;
    for (RetainedNight& night : nights) {
        moment += 1 + static_cast<std::time_t>(random() % (2 * Day));
        night.moment = moment;
        night.good = random() % 4 != 0;
        night.has_archive = random() % 5 != 0;
        night.foreign = random() % 20 == 0;
        night.units = {moment / Day, moment / Day / 7, moment / Day / 30, 0};
        night.objects = random() % 5;
        night.newest_copies = random() % 8 == 0 ? 1 : 0;
        if (random() % 2 == 0 && &night != nights.data())
            night.base = nights[random() % static_cast<unsigned>(&night - nights.data())].moment;
    }
    nights[random() % nights.size()].tonight = true;
    return nights;
}

// What is wrong with the decisions; "" when nothing is.
std::string WhatIsWrong(const std::vector<RetainedNight>& nights, const KeepRules& rules,
                        const std::vector<Decision>& decisions) {
    const auto counts = [](const RetainedNight& night) {
        return night.has_archive && !night.foreign && night.moment <= Now;
    };
    std::uint64_t good = 0, best = 0;
    bool keeps_best = false, before_good = true, has_failed = false;
    std::set<std::int64_t> days;
    for (std::size_t i = nights.size(); i-- > 0;) {
        const RetainedNight& night = nights[i];
        const bool kept = decisions[i].keep;
        if ((night.tonight || night.foreign || night.moment > Now || night.newest_copies > 0) && !kept)
            return FormatText("night %zu is not kept", i);
        if (kept && night.base)
            for (std::size_t j = 0; j < nights.size(); ++j)
                if (nights[j].moment == *night.base && !decisions[j].keep)
                    return FormatText("night %zu lost its base", i);
        if (counts(night) && night.good) {
            before_good = false;
            if ((++good <= std::max<std::uint64_t>(rules.last, 1) ||
                 (days.size() < rules.daily && !days.contains(night.units.day))) &&
                !kept)
                return FormatText("a rule wants night %zu", i);
            days.insert(night.units.day);
        }
        if (counts(night) && !night.good && before_good) {
            has_failed = true;
            if (night.objects > best || !keeps_best)
                keeps_best = night.objects > best ? kept : keeps_best || (kept && night.objects == best);
            best = std::max(best, night.objects);
        }
        if (decisions[i].reasons.empty())
            return FormatText("night %zu has no reason", i);
    }
    return has_failed && !keeps_best ? "the best failed night is not kept" : "";
}

TEST(Retention, HoldsForAnyNights) {
    const std::size_t rounds = std::min<std::size_t>(NightCount() * 100, 1'000'000);
    std::mt19937 random(7);
    for (std::size_t i = 0; i < rounds; ++i) {
        const std::vector<RetainedNight> nights = RandomNights(random);
        const KeepRules rules{random() % 4, random() % 4, random() % 3, random() % 3};
        const std::vector<Decision> decisions = DecideRetention(nights, rules, Now);
        ASSERT_EQ(WhatIsWrong(nights, rules, decisions), "") << "round " << i;
        // What lies in the future, or was copied, changes nothing for the others.
        std::vector<RetainedNight> genuine = nights;
        std::erase_if(genuine, [](const RetainedNight& night) { return night.foreign || night.moment > Now; });
        const std::vector<Decision> alone = DecideRetention(genuine, rules, Now);
        for (std::size_t j = 0, k = 0; j < nights.size(); ++j)
            if (!nights[j].foreign && nights[j].moment <= Now) {
                ASSERT_LE(alone[k].keep, decisions[j].keep) << "round " << i;
                ++k;
            }
    }
}

// One night a day for a year, all of them alike: what is kept is what the rules say and no more.
TEST(Retention, KeepsNoMoreThanTheRules) {
    struct Row {
        KeepRules rules;
        std::vector<std::size_t> ages; // of the nights kept, in days
    };
    for (const Row& row : {Row{{3, 0, 0, 0}, {2, 1, 0}}, Row{{1, 2, 0, 0}, {1, 0}}, Row{{1, 0, 3, 0}, {8, 1, 0}},
                           Row{{0, 0, 0, 3}, {31, 1, 0}}, Row{{0, 0, 0, 0}, {0}}}) {
        std::vector<RetainedNight> nights;
        for (std::int64_t day = 0; day < 361; ++day)
            nights.push_back({.moment = Now - (360 - day) * Day,
                              .good = true,
                              .has_archive = true,
                              .units = {day, (day + 4) / 7, day / 30, 0}});
        const std::vector<Decision> decisions = DecideRetention(nights, row.rules, Now);
        std::vector<std::size_t> kept;
        for (std::size_t i = 0; i < nights.size(); ++i)
            if (decisions[i].keep)
                kept.push_back(nights.size() - 1 - i);
        EXPECT_THAT(kept, testing::ContainerEq(row.ages));
    }
}

// Old by the clock is not enough: as many nights must have been.
TEST(Retention, LetsNothingGrowOldByAClockThatJumps) {
    std::vector<std::time_t> moments; // in the order in which the nights ran
    for (int i = 0; i < 30; ++i)
        moments.push_back(Now + i * Day);
    const NightClock soon(Now + 29 * Day, moments), jumped(Now + 4000 * Day, moments);
    EXPECT_TRUE(soon.IsLongAgo(Now, 29 * Day - 1));
    EXPECT_FALSE(soon.IsLongAgo(Now, 29 * Day));
    EXPECT_TRUE(jumped.IsLongAgo(Now, 36 * Day - 1));
    EXPECT_FALSE(jumped.IsLongAgo(Now, 36 * Day));
    EXPECT_FALSE(NightClock(Now + 5 * Day, moments).IsLongAgo(Now, 10 * Day));
    // A night that ran under a clock far behind has no more nights after it than ran after it.
    const NightClock behind(Now + 3 * Day, {Now, Now + Day, Now - 90 * Day, Now + 2 * Day});
    EXPECT_TRUE(behind.IsLongAgo(Now - 90 * Day, 8 * Day - 1));
    EXPECT_FALSE(behind.IsLongAgo(Now - 90 * Day, 8 * Day));
}

} // namespace

} // namespace nightly
