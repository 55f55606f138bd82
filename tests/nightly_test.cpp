// vondral-nightly: configuration, the judgement of nights, and whole nights with the real program against the rehearsal
// server.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>
#include <set>

#include <fcntl.h>

#include "nightly/config.h"
#include "nightly/copies.h"
#include "nightly/drill.h"
#include "nightly/failure.h"
#include "nightly/history.h"
#include "nightly/hooks.h"
#include "nightly/judge.h"
#include "nightly/moments.h"
#include "nightly/prune.h"
#include "nightly/report_files.h"
#include "nightly/run.h"
#include "nightly/vondral_command.h"
#include "test_support.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::time_t Start = 1'790'000'000; // a Monday, 2026-09-21 14:13:20 UTC
constexpr std::time_t Day = 86400;

// Names, times, numbers

TEST(Moments, AreReadAsTheyAreWritten) {
    EXPECT_EQ(NightName(Start), "2026-09-21T141320Z");
    EXPECT_EQ(ParseNightName("2026-09-21T141320Z"), Start);
    for (const char* const name : {"2026-09-21T141320", "2026-09-31T141320Z", "2026-09-21T141320Z.new", "notes",
                                   "2026-9-21T141320Z", "+026-09-21T141320Z"})
        EXPECT_EQ(ParseNightName(name), std::nullopt) << name;
    // 22:30 UTC is the next day in Berlin, and there the first of a new week and month.
    const std::time_t late = *ParseNightName("2026-05-31T223000Z");
    const CalendarUnits here = UnitsOf(late, "UTC"), there = UnitsOf(late, "Europe/Berlin");
    EXPECT_EQ(there.day - here.day, 1);
    EXPECT_EQ(there.week - here.week, 1);
    EXPECT_EQ(there.month - here.month, 1);
    EXPECT_EQ(here.weekday, 0);
    EXPECT_EQ(ParseDuration("15m"), 900);
    EXPECT_EQ(ParseDuration("2y"), 730 * Day);
    EXPECT_EQ(ParseDuration("0s"), 0);
    for (const char* const text : {"", "15", "m", "-1m", "1.5h", "15 m", "15min", "1001y", "9223372036854775807d"})
        EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
    EXPECT_EQ(ParseShare("2.5%"), 0.025);
    for (const char* const text : {"", "%", "5", "-1%", "101%", "nan%", "5 %"})
        EXPECT_EQ(ParseShare(text), std::nullopt) << text;
}

// Configuration

std::string MinimalConfig(const std::string& more) {
    return "server = \"host\"\nlogin = \"FRED\"\npassphrase = \"file:/secret\"\n" + more;
}

TEST(Configuration, RefusesMistakesWithTheirPlace) {
    const TempDir work;
    const auto error_of = [&](const std::string& text) -> std::string {
        WriteFile(work / "office.toml", text);
        try {
            ReadConfig(work.path, "office");
        } catch (const Failure& failure) {
            return std::string(failure.what()).substr(work.path.string().size() + 13);
        }
        return "none";
    };
    std::istringstream rows(R"(colour = 1|4:1: unknown key: colour
keep = { last = 7, hourly = 1 }|4:20: unknown key: hourly
wait = "120"|4:8: wait must be a number from -1 to 99999
wait = 100000|4:8: wait must be a number from -1 to 99999
timeout = 0|4:11: timeout must be a number from 1 to 99999
precheck = "yes"|4:12: precheck must be true or false
directory = "nights"|4:13: directory must be a path that begins with a slash
tolerate = 0.1|4:12: tolerate must be a text in quotes
timezone = ""|4:12: timezone must be a text without control characters, and not empty
tolerate = "10"|4:12: tolerate must be a share, such as "0%" or "20%"
timezone = "Berlin"|4:12: timezone must be the name of a zone, such as "Europe/Berlin"
level = 1|4:9: level must be a table
level = {}|4:9: the key full is missing
level = { full = [], otherwise = "changed" }|4:18: full must be a list of at least one weekday
level = { full = ["sunday"], otherwise = "changed" }|4:18: full must be a list of weekdays, such as ["Sunday"]
level = { full = ["Sunday"] }|4:9: the key otherwise is missing
level = { full = ["Sunday"], otherwise = "none" }|4:42: otherwise must be "changed"
level = { full = ["Sunday"], otherwise = "changed" }|4:9: level: needs the key timezone
timezone = "UTC"
level = { full = ["Sunday"], otherwise = "changed", margin = "59s" }|5:9: level: margin must be at least a minute
drill = {}|4:9: the key server is missing
drill = { server = "x" }|4:9: the key library is missing
drill = { server = "x", library = "/home/A.LIB", as = "/QSYS.LIB/A.LIB" }|4:9: drill: library and as must be libraries
drill = { server = "x", library = "/QSYS.LIB/A.LIB", as = "/QSYS.LIB/B.LIB", pin = "p" }|4:9: drill: pin needs
tls = {}
drill = { server = "host", library = "/QSYS.LIB/A.LIB", as = "/QSYS.LIB/B.LIB", pin = "p" }|5:9: drill: pin is for another
retry = { times = 10 }|4:19: times must be a number from 0 to 8
retry = { times = 8, wait = "30" }|4:29: wait must be a duration
hooks = { on_start = "x" }|4:22: on_start must be a list of commands in quotes
keep = { last = 0, daily = 0, weekly = 0, monthly = 0 }|4:8: keep: last, daily, weekly and monthly are all 0, so that
keep = { records = "1d" }|4:8: keep: records must not be shorter than forget_after, which is read from them
server = "again"|4:10: Error while parsing key-value pair: cannot redefine existing string 'server'
)");
    for (std::string text, error; std::getline(rows, text, '|') && std::getline(rows, error);)
        EXPECT_THAT(error_of(MinimalConfig(text)), testing::StartsWith(error)) << text;
    const std::string host = "server = \"h\"\n", login = "login = \"A\"\n", file = "passphrase = \"file:/x\"\n";
    EXPECT_THAT(error_of(login + file), HasSubstr("the key server is missing"));
    EXPECT_THAT(error_of(host + file), HasSubstr("the key login is missing"));
    EXPECT_THAT(error_of(host + "login = \"A:B\"\n" + file), HasSubstr("must not contain a colon"));
    EXPECT_THAT(error_of(host + login + "passphrase = \"x\"\n"), HasSubstr("passphrase must be"));
    // Every key of its own value, as it is shown.
    const std::string whole = R"(server = "host"
login = "FRED"
passphrase = "file:/secret"
timezone = "Europe/Berlin"
directory = "/nights"
include = "/in"
exclude = "/a \"b"
precheck = false
wait = 7
timeout = 3
level = { full = ["Sunday", "Friday"], otherwise = "changed", margin = "1m", max_shrink = "30%" }
keep = { last = 1, daily = 2, weekly = 3, monthly = 4, records = "100d", forget_after = "36h" }
tolerate = "2.5%"
max_shrink = "10%"
retry = { times = 2, wait = "20m" }
hooks = { on_start = ["a"], on_success = ["b", "c"], on_failure = ["d"], limit = "5s" }
drill = { server = "s", library = "/QSYS.LIB/L.LIB", as = "/QSYS.LIB/M.LIB", pin = "sha256//x" }
tls = { ca = "/ca", pin = "sha256//y" }
metrics = "/metrics"
)";
    WriteFile(work / "office.toml", whole);
    EXPECT_EQ(ShowConfig(ReadConfig(work.path, "office")), whole);
    // What is shown of defaults can be read again.
    WriteFile(work / "office.toml", MinimalConfig(""));
    const std::string shown = ShowConfig(ReadConfig(work.path, "office"));
    EXPECT_THAT(shown, HasSubstr("directory = \"/var/lib/vondral/office\"\n"));
    WriteFile(work / "copy.toml", shown);
    EXPECT_EQ(ShowConfig(ReadConfig(work.path, "copy")), shown);
    EXPECT_THAT(ListServers(work.path), ElementsAre("copy", "office"));
}

TEST(Configuration, RefusesAPassphraseThatOthersCanRead) {
    const TempDir work;
    Config config;
    config.passphrase = "file:" + (work / "secret").string();
    EXPECT_THROW(PassphraseFile(config), Failure);
    WriteFile(work / "secret", "secret\n");
    for (const auto& [mode, good] : {std::pair{0600, true}, {0400, true}, {0640, false}, {0604, false}}) {
        fs::permissions(work / "secret", static_cast<fs::perms>(mode));
        if (good)
            EXPECT_EQ(PassphraseFile(config), work / "secret");
        else
            EXPECT_THROW(PassphraseFile(config), Failure) << std::oct << mode;
    }
    config.passphrase = "credential:secret";
    ::unsetenv("CREDENTIALS_DIRECTORY");
    EXPECT_THROW(PassphraseFile(config), Failure);
    ::setenv("CREDENTIALS_DIRECTORY", work.path.c_str(), 1);
    EXPECT_EQ(PassphraseFile(config), work / "secret");
    ::unsetenv("CREDENTIALS_DIRECTORY");
}

// Judgement

// The files of an attempt, of which "archive" is a list of entries, "NAME=BYTES" with commas between.
struct Attempt {
    std::vector<ArchiveEntry> entries;
    std::string catalog, missed; // paths, with commas between
    int attempted = 0;
    std::string log = "** Backup Complete"; // before the totals
    int parse_errors = 0;
    std::string cut = {}; // appended to the archive: junk
};

std::string Lines(const std::string& list) {
    std::string text;
    for (std::size_t begin = 0; begin < list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        text += "[02:00:31] [T04] " + list.substr(begin, end - begin) + "\n";
        begin = end + 1;
    }
    return text;
}

void WriteAttempt(const fs::path& directory, int retry, const Attempt& attempt) {
    const auto path = [&](const char* name) { return directory / AttemptFile(name, retry); };
    WriteFile(path(NightFiles::Archive), MakeArchive(attempt.entries) + attempt.cut);
    WriteFile(path(NightFiles::Catalog), Lines(attempt.catalog));
    WriteFile(path(NightFiles::Missed), Lines(attempt.missed));
    std::string log = "[02:00:00] [T00] Building Object Lists\n[02:00:00] [T00] " + attempt.log + "\n";
    if (attempt.attempted >= 0)
        log += FormatText("[02:00:00] [T00] ** Parsing Errors : %d\n[02:00:00] [T00] ** Total Objects Attempted: %d\n"
                          "[02:00:00] [T00] ** Total Objects Failed   : 0\n"
                          "[02:00:00] [T00] ** Total Run Time: 1.0 seconds\n",
                          attempt.parse_errors, attempt.attempted);
    WriteFile(path(NightFiles::Log), log);
}

TEST(Judge, BelievesOnlyWhatTheFilesProve) {
    const std::vector<ArchiveEntry> all{{"/QSYS.LIB/A.LIB", std::string(528, 'a')}, {"/home.savf", "home"}};
    const std::string names = "/QSYS.LIB/A.LIB,/home/x,/home/y", in_part = "/QSYS.LIB/A.LIB: 550 3 objects not saved..";
    const Attempt good{all, names, "", 3}, one_lost{all, names, "/home: 1 objects not saved", 3};
    const std::string no_login = "vondral[vondral.cpp,1]: login failed", end = "** Backup Complete", junk(512, 'x');
    Night before;
    before.moment = Start;
    before.record.emplace();
    before.record->objects = 4;
    before.record->bytes = 532;
    JudgeRules strict, tolerant, shrinking, accepting, mistaken;
    tolerant.tolerate = 0.25;
    shrinking.like = accepting.like = &before;
    shrinking.max_shrink = accepting.max_shrink = 0.2;
    accepting.accept_shrink = true;
    mistaken.mistakes = {"line 1 is empty"};
    using enum Verdict;
    struct Row {
        int status;
        JudgeRules rules;
        Verdict verdict;
        std::uint64_t missing;
        const char* reason;
        Attempt attempt;
    };
    for (const auto& [status, rules, verdict, missing, reason, attempt] :
         {Row{0, strict, Good, 0, "", good},
          {0, strict, Failed, 1, "1 file of 3 missing", {{all[1]}, names, "", 3}},
          {1, strict, Failed, 161, "161 files of 164 missing (98.2 %", {all, names, "/etc", 164}},
          {0, tolerant, GoodWithGaps, 1, "as tolerated", {all, names + ",/home/z", one_lost.missed, 4}},
          {0, strict, Failed, 1, "1 file of 3 missing", one_lost},
          {0, strict, Failed, 1, "1 file of 3 missing", {all, names, in_part, 3}},
          {1, strict, Failed, 2, "2 files of 3 missing", {all, names, "", 3, end, 2}}, // unreadable lines
          {1, tolerant, Failed, 2, "(40 %; 25 % is tolerated)", {all, names, "/a,/b", 5}},
          {1, strict, Suspicious, 0, "ended with status 1", good},
          {255, strict, Failed, 0, "vondral ended with status 255", good},
          {137, strict, Failed, 0, "did not reach its end", {all, names, "", -1, "Backup Success: /x"}},
          {255, strict, Failed, 0, "did not reach its end: ", {all, names, "", -1, no_login}},
          {0, strict, Failed, 0, "the archive has no object", {}},
          {0, strict, Failed, 3, "archive.ctar: at 2560: data after the end", {all, names, "", 3, end, 0, junk}},
          {0, mistaken, Suspicious, 0, "line 1 is empty", good},
          {0, shrinking, Suspicious, 0,
           "3 files, 25 % fewer than the 4 of 2026-09-21T141320Z; if that is right, run with --accept-shrink", good},
          {0, accepting, Good, 0, "", good}}) {
        const TempDir night;
        WriteAttempt(night.path, 0, attempt);
        const NightRecord record = JudgeNight(night.path, 0, {status, status}, rules).record;
        EXPECT_EQ(record.verdict, verdict) << reason;
        EXPECT_EQ(record.missing, missing) << reason;
        EXPECT_THAT(testing::PrintToString(record.reasons), HasSubstr(reason));
    }
}

TEST(Judge, CountsTheUnionOfAllAttempts) {
    JudgeRules tolerant;
    tolerant.tolerate = 0.5;
    const std::vector<ArchiveEntry> first{{"/a", "1"}}, second{{"/QSYS.LIB/B.LIB", "22"}};
    const TempDir night;
    WriteAttempt(night.path, 0, {first, "/a", "/QSYS.LIB/B.LIB,/c", 3});
    WriteAttempt(night.path, 1, {second, "/QSYS.LIB/B.LIB", "/c", 2});
    WriteFile(IncludeFileOf(night.path, 1), "/QSYS.LIB/B.LIB\n/c\n");
    const Judgement one = JudgeNight(night.path, 1, {1, 1}, {});
    EXPECT_EQ(one.record.missing, 1);
    EXPECT_EQ(one.missed, std::vector{ParseMissed("/c")});
    EXPECT_THAT(one.record.archives, ElementsAre("archive.ctar", "retry1.ctar"));
    WriteAttempt(night.path, 2, {{{"/c", "3"}}, "/c", "", 1});
    WriteFile(IncludeFileOf(night.path, 2), "/c\n");
    const Judgement both = JudgeNight(night.path, 2, {1, 0}, {});
    EXPECT_EQ(both.record.verdict, Verdict::Good) << testing::PrintToString(both.record.reasons);
    EXPECT_EQ(both.record.objects, 3);
    EXPECT_EQ(both.record.bytes, 4);
    // A retry that died saved what its archive has; the rest is still missed, and its status is no verdict on the
    // night.
    const TempDir dead;
    WriteAttempt(dead.path, 0, {first, "/a", "/QSYS.LIB/B.LIB,/c", 3});
    WriteAttempt(dead.path, 1, {second, "/QSYS.LIB/B.LIB", "", -1, "vondral[socket.cpp,1]: connection closed"});
    WriteFile(IncludeFileOf(dead.path, 1), "/QSYS.LIB/B.LIB\n/c\n");
    const Judgement died = JudgeNight(dead.path, 1, {1, 255}, tolerant);
    EXPECT_EQ(died.missed, std::vector{ParseMissed("/c")});
    EXPECT_EQ(died.record.verdict, Verdict::GoodWithGaps) << testing::PrintToString(died.record.reasons);
    // One that ended well, but passed over a name, did not save it.
    WriteAttempt(dead.path, 1, {second, "/QSYS.LIB/B.LIB", "", 1});
    EXPECT_EQ(JudgeNight(dead.path, 1, {1, 0}, tolerant).missed, std::vector{ParseMissed("/c")});
    // A second attempt at everything takes the place of the first one's figures.
    const TempDir other;
    WriteAttempt(other.path, 0, {{}, "", "", -1, "vondral[vondral.cpp,1]: login failed"});
    WriteAttempt(other.path, 1, {first, "/a", "", 1});
    WriteFile(other / "archive.ctar", "damaged");
    EXPECT_EQ(JudgeNight(other.path, 1, {0, 0}, {}).record.verdict, Verdict::Good);
    // What two include lines name is attempted twice, and in the catalog twice.
    WriteAttempt(other.path, 1, {first, "/a,/a", "", 2});
    EXPECT_EQ(JudgeNight(other.path, 1, {0, 0}, {}).record.verdict, Verdict::Good);
    WriteAttempt(other.path, 1, {first, "/a", "", 1});
    // What a retry saved again counts once.
    WriteAttempt(other.path, 2, {{{"/a", "12345"}}, "/a", "", 1});
    WriteFile(IncludeFileOf(other.path, 2), "/a\n");
    EXPECT_EQ(JudgeNight(other.path, 2, {0, 0}, {}).record.bytes, 5);
}

TEST(Records, AreReadAsTheyAreWritten) {
    NightRecord record;
    record.server = "host\"\xe9";
    record.level = Level::Changed;
    record.verdict = Verdict::GoodWithGaps;
    record.base = Start;
    record.archives = {"archive.ctar", "retry1.ctar"};
    record.archive_bytes = {512, 1024};
    const std::string text = EncodeRecord(record);
    const std::optional<NightRecord> read = DecodeRecord(text);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->verdict, record.verdict);
    EXPECT_EQ(read->base, record.base);
    EXPECT_EQ(read->archives, record.archives);
    for (std::size_t length = 0; length + 1 < text.size(); ++length)
        EXPECT_FALSE(DecodeRecord(text.substr(0, length))) << length;
    std::string hostile = text;
    hostile.replace(hostile.find("retry1.ctar"), 11, "../../x.ctar");
    EXPECT_FALSE(DecodeRecord(hostile));
}

// Whole nights

// A server, its configuration, and a clock that the test sets.
struct NightSite {
    TestSite site;
    Config config;
    std::time_t now = Start;
    std::vector<std::string> said, hooks;
    int attempts = 0; // in the night
    std::function<void()> before_attempt = [] {};

    NightSite() {
        WriteObjects(site.root.path);
        WriteFile(site.work / "secret", "secret\n");
        fs::permissions(site.work / "secret", fs::perms::owner_read);
        fs::create_directory(site.work / "nights");
        config.name = "office";
        config.server = "127.0.0.1";
        config.login = "FRED";
        config.passphrase = "file:" + (site.work / "secret").string();
        config.directory = site.work / "nights";
        config.metrics = site.work / "metrics";
        config.retry_wait = 0;
        config.knows_timezone = true;
    }
    World MakeWorld() {
        World world;
        attempts = 0;
        world.now = [this] { return now; };
        world.back_up = [this](const BackupRequest& request) {
            before_attempt();
            ++attempts;
            site.options.root = site.root.path;
            site.server = std::make_unique<rehearsal::Server>(site.options);
            ::setenv("VONDRAL_TEST_PORT", std::to_string(site.server->Port()).c_str(), 1);
            ::setenv("VONDRAL_TEST_MINUTE", "1000", 1);
            return RunBackup(config, request, -1, nullptr);
        };
        world.pause = [](std::int64_t) {};
        world.stop_requested = [] { return false; };
        world.run_hooks = [this](HookKind kind, const HookFacts& facts) {
            RunHooks(config, kind, facts);
            hooks.push_back(facts.verdict);
        };
        world.say = [this](const std::string& line) { said.push_back(line); };
        world.report = [this](const Night& night) {
            Disk disk;
            const std::vector<Night> nights = ListNights(config.directory);
            WriteReports(disk, config, night, LastGood(nights, night.moment));
        };
        world.record_history = [] {};
        return world;
    }
    // Runs a night, and moves the clock to the next one.
    Night Run(const RunOptions& options = {}) {
        World world = MakeWorld();
        const Night night = RunNight(world, config, options);
        now += Day;
        return night;
    }
    std::string Exclude(const std::string& text) {
        config.exclude = site.File("exclude", text);
        return config.exclude;
    }
    std::vector<Night> Nights() const { return ListNights(config.directory); }
    bool HasArchive(const Night& night) const { return fs::exists(night.File(NightFiles::Archive)); }
    // vondral-nightly itself, on what the nights above left.
    pid_t StartNightly(Program& program, std::vector<std::string> arguments) {
        WriteFile(site.work / "etc/office.toml", ShowConfig(config));
        arguments.insert(arguments.begin(), {"--config-dir", site.work / "etc"});
        program.executable = NIGHTLY_UNDER_TEST;
        program.arguments = std::move(arguments);
        program.port = site.server != nullptr ? site.server->Port() : 0;
        return program.Start();
    }
    Outcome Command(const std::vector<std::string>& arguments) {
        Program program;
        StartNightly(program, arguments);
        return program.Wait();
    }
    void StartServer() { site.server = std::make_unique<rehearsal::Server>(site.options); }
    // All but the system's own data.
    Outcome Restore(const std::vector<std::string>& selection = {}) {
        const std::string system = site.File("system", "/Security Data\n/System Configuration\n");
        std::vector<std::string> arguments{"restore", "office", "-e", system, "--yes"};
        arguments.insert(arguments.end(), selection.begin(), selection.end());
        return Command(arguments);
    }
};

std::string Reasons(const Night& night) {
    return testing::PrintToString(night.record->reasons);
}

// The ways in which a believed exit status lost the last good copy.

TEST(Nights, AnEmptyExcludeLineReplacesNothing) {
    NightSite site;
    const Night good = site.Run();
    ASSERT_TRUE(good.IsGood()) << Reasons(good);
    site.config.keep = {1, 0, 0, 0};
    site.Exclude("/QDLS\n\n");
    EXPECT_THAT(Reasons(site.Run()), HasSubstr("exclude: line 2 is empty and excludes the whole server"));
    EXPECT_TRUE(site.HasArchive(good));
}

TEST(Nights, LockedObjectsReplaceNothing) {
    NightSite site;
    const Night good = site.Run();
    site.config.keep = {1, 0, 0, 0};
    site.config.tolerate = 0.10;
    site.site.options.locked = {"/home/note", "/QSYS.LIB/PAYROLL.LIB"};
    const Night bad = site.Run();
    EXPECT_EQ(bad.record->verdict, Verdict::Failed);
    EXPECT_THAT(Reasons(bad), HasSubstr("3 files of 7 missing"));
    // With precheck off the library counts as saved.
    site.config.precheck = false;
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB/RATES.FILE"};
    const Night empty = site.Run();
    EXPECT_EQ(empty.record->exit_status, 0);
    EXPECT_EQ(empty.record->verdict, Verdict::Failed);
    EXPECT_THAT(Reasons(empty), HasSubstr("1 file of 7 missing"));
    EXPECT_TRUE(site.HasArchive(good));
    EXPECT_THAT(ReadFile(empty.File(NightFiles::Missed)), HasSubstr("] /QSYS.LIB/PAYROLL.LIB"));
    site.config.precheck = true;
    site.config.include = site.site.File("include", "/QSYS.LIB/PAYROLL.LIB\n");
    site.Exclude("/S*\n");
    site.Run();
    EXPECT_THAT(site.said, testing::Contains(HasSubstr(": failed: 0 files, 0.000 MB in 0 s, 1 missing")));
}

// A library in part, in a night that tolerates that, is no reason to give up an older one that may be whole.
TEST(Nights, WhatIsInPartReplacesNothing) {
    NightSite site;
    site.config.keep = {1, 0, 0, 0};
    site.site.options.locked = {"/home/note"};
    const Night failed = site.Run();
    site.config.tolerate = 0.5;
    site.config.precheck = false;
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB/RATES.FILE"};
    for (const std::uint64_t retries : {0, 1}) {
        site.config.retries = retries;
        EXPECT_EQ(site.Run().record->verdict, Verdict::GoodWithGaps);
    }
    EXPECT_TRUE(site.HasArchive(failed));
    EXPECT_THAT(site.Command({"find", "office", "PAYROLL"}).out, HasSubstr("perhaps not: a part of it was missed"));
}

// A line of a listing that cannot be read is missing, but has no name. Later nights go on all the same.
TEST(Nights, MissWhatNobodyCanName) {
    NightSite site;
    site.config.tolerate = 0.5;
    site.config.max_shrink = 1;
    // Within the last line, that of "home".
    site.site.options.faults = {OfKind(rehearsal::Fault::Kind::DataClose, "LIST /", 1, 130)};
    site.config.retries = 1; // of which name?
    const Night night = site.Run();
    EXPECT_EQ(site.attempts, 1);
    EXPECT_EQ(night.record->verdict, Verdict::GoodWithGaps);
    EXPECT_THAT(Reasons(night), HasSubstr("1 file missing, as tolerated: the log tells why"));
    site.site.options.faults.clear();
    EXPECT_TRUE(site.Run().IsGood());
    // But a list that has lost its lines is no list.
    site.site.options.locked = {"/home/note"};
    const Night gaps = site.Run();
    ASSERT_TRUE(gaps.IsGood()) << Reasons(gaps);
    WriteFile(gaps.File(NightFiles::Missed), "");
    EXPECT_THROW(MissedPaths(gaps), Failure);
}

TEST(Nights, ANightInTheFutureReplacesNothing) {
    NightSite site;
    site.now += 400 * Day;
    const Night future = site.Run();
    site.now = Start;
    site.config.keep = {1, 0, 0, 0};
    const Night first = site.Run(), second = site.Run();
    EXPECT_TRUE(site.HasArchive(second));
    EXPECT_TRUE(site.HasArchive(future));
    EXPECT_FALSE(site.HasArchive(first));
    EXPECT_THAT(site.said, testing::Contains(future.Name() + ": its name lies in the future; check the clock"));
}

TEST(Nights, ChangedNightsKeepTheFullOneTheyBuildOn) {
    NightSite site;
    site.config.keep = {2, 0, 0, 0};
    site.config.level.full_days = {1};
    site.config.level.max_shrink = 1;
    const Night full = site.Run();
    std::vector<Night> changed;
    for (int i = 0; i < 4; ++i) {
        WriteFile(site.site.root / "home/new", std::to_string(i));
        fs::last_write_time(site.site.root / "home/new", fs::file_time_type::clock::now());
        changed.push_back(site.Run());
        EXPECT_EQ(changed.back().record->level, Level::Changed);
    }
    // One that is killed stays a changed one.
    World world = site.MakeWorld();
    world.back_up = [](const BackupRequest&) -> int { throw std::runtime_error("killed"); };
    EXPECT_ANY_THROW(RunNight(world, site.config, {}));
    FinishInterrupted(world, site.config);
    EXPECT_EQ(site.Nights().back().record->base, changed[3].moment);
    site.now += 1;
    EXPECT_EQ(changed[0].record->cutoff, full.moment - 900);
    EXPECT_EQ(ChainOf(site.Nights(), changed[3]).size(), 5);
    // A file comes from the nights that have it, of which every one but the first saved it anew.
    const std::string what = site.site.File("what", "/home/new\n\n");
    const std::string plan = site.Command({"plan", "office", "-i", what}).out;
    EXPECT_THAT(plan, HasSubstr("*** include file: line 2 is empty and matches everything"));
    site.site.File("what", "/home/new\n");
    const Outcome restored = site.Restore({"-i", what});
    EXPECT_EQ(restored.status, 0) << restored.out << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("4 of 4 objects restored\n"));
    EXPECT_THAT(site.Command({"diff", "office", full.Name(), changed[3].Name()}).err,
                HasSubstr(full.Name() + " is a full night and " + changed[3].Name() + " a changed one"));
    // The day of a full night was missed: the next one is full.
    site.now += 4 * Day;
    EXPECT_EQ(site.Run().record->level, Level::Full);
    EXPECT_EQ(site.Run().record->level, Level::Changed);
    EXPECT_EQ(site.Run({Level::Full}).record->level, Level::Full);
}

TEST(Nights, AnEmptyFailedNightReplacesNoBetterOne) {
    NightSite site;
    site.site.options.locked = {"/home/note"};
    const Night useful = site.Run();
    EXPECT_FALSE(useful.complete);
    site.site.options.password = "changed";
    const Night empty = site.Run();
    EXPECT_THAT(Reasons(empty), HasSubstr("the run did not reach its end: "));
    EXPECT_TRUE(site.HasArchive(useful));
    site.site.options.password = "secret";
    site.site.options.locked.clear();
    EXPECT_TRUE(site.Run().IsGood());
    EXPECT_FALSE(site.HasArchive(useful));
    // It may have what no later night has.
    WriteFile(site.site.root / "home/brief", "x");
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB"};
    const Night only = site.Run();
    EXPECT_FALSE(only.complete);
    fs::remove(site.site.root / "home/brief");
    site.site.options.locked.clear();
    EXPECT_TRUE(site.Run().IsGood());
    EXPECT_TRUE(site.HasArchive(only));
    EXPECT_THAT(site.Command({"find", "office", "brief"}).out,
                HasSubstr("-r " + only.File(NightFiles::Archive) + " -i FILE, with the line: /home/brief\n"));
    // Until it is forgotten, and then its records, too.
    site.config.keep.forget_after = Day;
    EXPECT_TRUE(site.Run().IsGood());
    EXPECT_FALSE(site.HasArchive(only));
    site.config.keep.records = Day / 2;
    EXPECT_TRUE(site.Run().IsGood());
    EXPECT_FALSE(fs::exists(only.path) || fs::exists(only.path + RemovingSuffix));
}

TEST(Nights, RetrySavesWhatWasMissed) {
    NightSite site;
    site.config.retries = 2;
    // The first save of each fails; the second one does not.
    site.site.options.faults = {Replace("RCMD SAVLIB LIB(PAYROLL)", "550 in use"), Replace("RCMD SAVSECDTA", "550 no")};
    site.before_attempt = [&] {
        if (site.attempts > 0)
            site.site.options.faults.clear();
    };
    const Night night = site.Run();
    EXPECT_TRUE(night.IsGood()) << Reasons(night);
    EXPECT_THAT(night.record->archives, ElementsAre("archive.ctar", "retry1.ctar"));
    const auto entries = ReadArchiveFile(night.File("retry1.ctar"));
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->size(), 2);
    EXPECT_EQ(ReadFile(night.File(NightFiles::Missed)), "");
    // Whatever kept the first attempt from saving anything, the second one saves everything.
    site.before_attempt = [&] { site.site.options.password = site.attempts > 0 ? "secret" : "changed"; };
    const Night second = site.Run();
    EXPECT_TRUE(second.IsGood());
    EXPECT_THAT(ReadFile(second.File(NightFiles::Page)),
                AllOf(HasSubstr("retry1.ctar"), HasSubstr("the last one at the whole night (retry1.log)"),
                      HasSubstr(">good</span>"), Not(HasSubstr("login failed"))));
}

// A changed night by itself would never save what its base missed.
TEST(Nights, ChangedNightsSaveWhatTheirBaseMissed) {
    NightSite site;
    site.config.level.full_days = {1};
    site.config.tolerate = 0.5;
    site.config.level.max_shrink = 1;
    for (const char* const file : {"QSYS.LIB/PAYROLL.LIB/RATES.FILE/RATES.MBR", "home/note"})
        fs::last_write_time(site.site.root / file, fs::file_time_type::clock::now() - std::chrono::hours(1000));
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB", "/home/note"};
    ASSERT_EQ(site.Run().record->verdict, Verdict::GoodWithGaps);
    site.now = std::time(nullptr) + Day; // nothing changes after the margin
    site.config.level.full_days = {UnitsOf(Start, "UTC").weekday};
    const Night locked = site.Run({Level::Changed});
    EXPECT_EQ(locked.record->verdict, Verdict::GoodWithGaps) << Reasons(locked);
    EXPECT_EQ(locked.record->missing, 3);
    site.site.options.locked.clear();
    const Night night = site.Run({Level::Changed});
    EXPECT_EQ(night.record->verdict, Verdict::Good) << Reasons(night);
    EXPECT_THAT(testing::PrintToString(CoveredPaths(night.path, night.record->archives)),
                HasSubstr("/QSYS.LIB/PAYROLL.LIB"));
    // What it missed is not known without the list.
    const std::string list = locked.File(NightFiles::Missed), lines = ReadFile(list);
    fs::remove_all(night.path);
    EXPECT_EQ(PlanNight(site.Nights(), site.config, site.now, Level::Changed).carried.size(), 2);
    WriteFile(list, "");
    EXPECT_THROW(PlanNight(site.Nights(), site.config, site.now, Level::Changed), Failure);
    WriteFile(list, lines);
    // Also when only the retry reaches its end, and never without that save.
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB"};
    ASSERT_EQ(site.Run({Level::Full}).record->verdict, Verdict::GoodWithGaps);
    site.site.options.locked.clear();
    site.config.retries = 1;
    site.before_attempt = [&] { site.site.options.password = site.attempts > 0 ? "secret" : "changed"; };
    for (const bool stopped : {true, false}) {
        World world = site.MakeWorld();
        world.stop_requested = [&] { return stopped && site.attempts == 2; };
        const Night retried = RunNight(world, site.config, {Level::Changed});
        EXPECT_EQ(site.attempts, stopped ? 2 : 3);
        EXPECT_EQ(retried.record->verdict, stopped ? Verdict::GoodWithGaps : Verdict::Good) << Reasons(retried);
        EXPECT_EQ(ReadMissed(retried.File(NightFiles::Missed)).size(), stopped ? 1 : 0);
        EXPECT_EQ(Holds(testing::PrintToString(CoveredPaths(retried.path, retried.record->archives)), "PAYROLL.LIB"),
                  !stopped);
        site.now += Day;
    }
}

// With an include file a changed night "finds" nothing of what has not changed.
TEST(Nights, WhatHasNotChangedIsNotMissing) {
    NightSite site;
    site.config.level.max_shrink = 1;
    site.config.include = site.site.File("include", "/home/note\n/home/it's\n");
    ASSERT_TRUE(site.Run().IsGood());
    site.now = std::time(nullptr) + Day;
    const Night changed = site.Run({Level::Changed});
    EXPECT_EQ(changed.record->verdict, Verdict::Good) << Reasons(changed);
    site.site.File("include", "/home/note\n/home/it's\n/home/never\n");
    const Night wrong = site.Run({Level::Changed});
    EXPECT_EQ(wrong.record->missing, 1);
    EXPECT_EQ(ReadMissed(wrong.File(NightFiles::Missed)), std::vector{ParseMissed("/home/never")});
    // A directory is listed whatever its age: it is gone, and so may be what is mounted there.
    fs::rename(site.site.root / "home/it's", site.site.root / "elsewhere");
    site.site.File("include", "/home/note\n/home/it's\n/home/n*\n/home/it*\n");
    EXPECT_EQ(ReadMissed(site.Run({Level::Changed}).File(NightFiles::Missed)),
              (std::vector{ParseMissed("/home/it's"), ParseMissed("/home/it*")}));
    site.config.knows_timezone = false;
    EXPECT_THROW(site.Run({Level::Changed}), Failure);
}

TEST(Archives, ThatEndInsideAnEntryDoNotContainIt) {
    const TempDir temp;
    WriteFile(temp / "x", MakeArchive({{"/a", "1"}, {"/b", std::string(3000, 'b')}}).substr(0, 3000));
    for (const Digests digests : {Digests::Skip, Digests::Compute}) {
        const ArchiveContents contents = ReadArchive(temp / "x", digests);
        EXPECT_EQ(contents.entries.size(), 1);
        EXPECT_THAT(contents.fault, HasSubstr("the archive ends inside the entry /b"));
    }
}

// Whatever of a failed night a restore could bring back counts as a copy, also when its end kept it from being named.
TEST(Nights, CutArchivesAndThoseOfRetriesCountAsCopies) {
    for (const std::string end :
         {"failed", "killed", "[02:00:00] [T00] vondral[a.cpp,1]: Backup Terminated Cleanly\n"}) {
        SCOPED_TRACE(end);
        const bool failed = end == "failed";
        NightSite site;
        site.config.retries = 1;
        WriteFile(site.site.root / "home/brief", "x");
        // The login is refused, then the last object is locked.
        site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB"};
        site.before_attempt = [&] { site.site.options.password = site.attempts > 0 ? "secret" : "changed"; };
        World world = site.MakeWorld();
        world.back_up = [&, back_up = world.back_up](const BackupRequest& request) {
            const int status = back_up(request);
            if (site.attempts == 2)
                WriteFile(request.archive, ReadFile(request.archive) + "data of a broken retrieval");
            if (!failed) {
                const std::string log = ReadFile(request.log);
                WriteFile(request.catalog, "");
                WriteFile(request.log, log.substr(0, log.size() / 2) + "\n" + end);
            }
            return status;
        };
        const Night only = RunNight(world, site.config, {});
        EXPECT_FALSE(only.HasGoodVerdict());
        EXPECT_FALSE(site.HasArchive(only));
        EXPECT_TRUE(fs::exists(only.File("retry1.ctar")));
        EXPECT_TRUE(site.Nights().front().has_archive);
        fs::remove(site.site.root / "home/brief");
        site.site.options.locked.clear();
        site.before_attempt = [] {};
        site.config.keep = {1, 0, 0, 0};
        for (int i = 0; i < 2; ++i) {
            site.now += Day;
            EXPECT_TRUE(site.Run().IsGood());
        }
        EXPECT_TRUE(fs::exists(only.File("retry1.ctar")));
        // Nobody knows what is in it: the next one of its kind takes its place.
        RunNight(world, site.config, {});
        site.now += Day;
        site.Run();
        EXPECT_EQ(fs::exists(only.File("retry1.ctar")), failed);
    }
}

// What somebody does to the files of a night makes nothing else go.
TEST(Nights, DamagedByHandReplaceNothing) {
    NightSite site;
    site.config.keep = {1, 0, 0, 0};
    const Night first = site.Run();
    WriteFile(site.site.root / "home/note", "newer");
    const Night second = site.Run();
    ASSERT_FALSE(site.HasArchive(first));
    fs::copy(second.path, site.site.work / "copy", fs::copy_options::recursive);
    const auto restore_copy = [&] {
        fs::remove_all(second.path);
        fs::copy(site.site.work / "copy", second.path, fs::copy_options::recursive);
    };
    // An archive that was cut off is none: its night counts for nothing, and cannot be restored.
    fs::resize_file(second.File(NightFiles::Archive), 5000);
    EXPECT_THAT(site.Command({"plan", "office", second.Name()}).err, HasSubstr("its archives are gone"));
    WriteFile(second.File(NightFiles::Archive), std::string(fs::file_size(site.site.work / "copy/archive.ctar"), 'x'));
    EXPECT_THAT(site.Command({"plan", "office", second.Name()}).err, HasSubstr("bad checksum"));
    // Without its catalog nobody knows what only this night has.
    restore_copy();
    WriteFile(second.File(NightFiles::Catalog), "");
    World world = site.MakeWorld();
    EXPECT_THROW(RunNight(world, site.config, {}), Failure);
    site.now += Day;
    EXPECT_TRUE(site.HasArchive(second));
    // A good name without a readable record tells nothing about what would be lost.
    restore_copy();
    WriteFile(second.File(NightFiles::Record), "{");
    EXPECT_THROW(RunNight(world, site.config, {}), Failure);
    site.now += Day;
    EXPECT_TRUE(site.HasArchive(second));
    EXPECT_THAT(site.Command({"status"}).out, HasSubstr(second.Name() + ": its run.json is missing or damaged"));
    // Two servers in one directory would remove each other's nights.
    restore_copy();
    site.config.name = "branch";
    EXPECT_THROW(RunNight(world, site.config, {}), Failure);
    EXPECT_TRUE(site.HasArchive(second));
}

TEST(Nights, HooksAndMetricsTellTheVerdict) {
    NightSite site;
    const std::string told = site.site.work / "told";
    site.config.hooks.on_start = {"echo $VERDICT >>" + told};
    site.config.hooks.on_failure = {
        "echo \"$SERVER $NIGHT $VERDICT $SUMMARY $(basename $PAGE) $(basename $LOG)\" >>" + told, "false"};
    site.config.hooks.on_success = {"sleep 3; echo late >>" + told};
    site.config.hooks.limit = 1;
    site.Run(); // its hook is killed
    site.site.options.locked = {"/home/note"};
    const Night bad = site.Run();
    EXPECT_THAT(ReadFile(told),
                testing::StartsWith("running\nrunning\noffice " + bad.Name() + " failed " + bad.Name()));
    EXPECT_THAT(ReadFile(told), testing::EndsWith(" report.html log\n"));
    const std::string metrics = ReadFile(site.config.metrics);
    EXPECT_THAT(metrics, HasSubstr("vondral_night_good{server=\"office\"} 0\n"));
    EXPECT_THAT(metrics, HasSubstr("vondral_night_files_missing{server=\"office\"} 2\n"));
    EXPECT_THAT(metrics,
                HasSubstr("vondral_last_good_run_end_time_seconds{server=\"office\"} " + std::to_string(Start)));
    EXPECT_THAT(ReadFile(bad.File(NightFiles::Page)),
                AllOf(HasSubstr("2 files of 7 missing"), HasSubstr("Newly missing")));
}

// A run that was killed before its verdict is judged by the next one; a kill while old nights are removed is made up
// for.
TEST(Nights, FinishWhatAKillLeft) {
    for (const char* const step : {"mkdir", "write", "publish", "sync", "rename", "remove"}) {
        NightSite site;
        site.config.keep = {1, 0, 0, 0};
        site.config.retries = 1;
        // The first attempt of each night misses a file.
        site.before_attempt = [&] { site.site.options.locked = {site.attempts == 0 ? "/home/note" : "/none"}; };
        EXPECT_EQ(site.Run().record->sequence, 1);
        const std::vector<std::string> others{site.config.directory + "/x",
                                              site.config.directory + "/2026-09-21T141320Z.exported"};
        for (const std::string& other : others)
            fs::create_directory(other);
        World world = site.MakeWorld();
        world.disk.before = [&](const char* name, const std::string&) {
            if (std::string(step) == name)
                throw std::runtime_error("killed");
        };
        EXPECT_ANY_THROW(RunNight(world, site.config, {})) << step;
        WriteFile(site.Nights().back().File("run.json.new"), std::string(5000, 'x'));
        site.now += 1;
        const Night after = site.Run();
        EXPECT_TRUE(after.IsGood()) << step;
        int archives = 0;
        for (const Night& night : site.Nights()) {
            EXPECT_TRUE(night.record) << step << " " << night.Name();
            EXPECT_EQ(night.record->retries, fs::exists(night.File("retry1.log")) ? 1 : 0) << step;
            EXPECT_EQ(night.complete, night.IsGood()) << step << " " << night.Name();
            archives += night.has_archive ? 1 : 0;
            EXPECT_EQ(night.has_archive, site.HasArchive(night)) << step;
            for (const auto& file : fs::directory_iterator(night.path))
                EXPECT_THAT(file.path().filename().string(), Not(testing::EndsWith(".removing"))) << step;
        }
        EXPECT_EQ(archives, 1) << step;
        EXPECT_TRUE(fs::exists(others[0]) && fs::exists(others[1]));
    }
}

TEST(Nights, TheirHistoryMadeAnewSaysTheSame) {
    NightSite site;
    std::vector<std::string> found[2];
    const auto find_all = [&](std::vector<std::string>& lines) {
        const std::vector<Night> nights = site.Nights();
        const History history(site.config.directory, nights);
        history.Find([](const std::string&) { return true; },
                     [&lines](const FoundCopy& copy) {
                         lines.push_back(copy.path + " " + copy.night->Name() + " " + copy.entry + " " +
                                         std::to_string(copy.bytes) + copy.digest + copy.archive);
                     });
    };
    for (int night = 0; night < 7; ++night) {
        fs::remove(site.site.root / "home/note");
        if (night % 3 != 1)
            WriteFile(site.site.root / "home/note", std::to_string(night));
        site.site.options.locked.clear();
        if (night == 4 || night == 6)
            site.site.options.locked = {"/QDLS"};
        site.Run();
        std::vector<std::string> ignored;
        find_all(ignored);
    }
    find_all(found[0]);
    EXPECT_THAT(found[0], testing::Contains(HasSubstr("/home/note 2026-09-24T141320Z /home ")));
    EXPECT_THAT(found[0], Not(testing::Contains(HasSubstr("/home/note 2026-09-22T141320Z"))));
    EXPECT_THAT(site.Command({"find", "office", "PAYROLL"}).out,
                AllOf(HasSubstr("2026-09-21T141320Z to 2026-09-24T141320Z, 4 nights: entry of its own, "),
                      testing::ContainsRegex("2026-09-25T141320Z: [^\n]*, night failed\n"),
                      HasSubstr("night failed\n  to get it back: vondral-nightly restore office 2026-09-26T141320Z")));
    EXPECT_EQ(site.Command({"reindex", "office"}).status, 0);
    find_all(found[1]);
    EXPECT_EQ(found[0], found[1]);
    WriteFile(site.config.directory + "/history.db", "this is no database");
    found[1].clear();
    find_all(found[1]);
    EXPECT_EQ(found[0], found[1]);
}

// The commands that read nights

TEST(Commands, ReadWhatTheNightsLeft) {
    NightSite site;
    site.before_attempt = [&] { site.now += site.now < Start + Day ? 100 : 150; };
    const Night first = site.Run();
    WriteFile(site.site.root / "home/added", std::string(1000, 'm'));
    WriteFile(site.site.root / "home/a[1]", "");
    WriteFile(site.site.root / "QDLS/FOLDER/LETTER", "dear you");
    fs::remove_all(site.site.root / "QSYS.LIB/TOOLS.LIB");
    site.now = Start + Day;
    const Night second = site.Run();
    fs::create_directory(site.config.directory + "/2026-09-23T141320Z.incomplete"); // of a run that was killed at once
    const std::string what =
        site.site.File("what", "/nowhere\n/QSYS.LIB/PAYROLL.LIB :: /QSYS.LIB/COPY.LIB\n/home/a[1]\n");
    const std::string page = site.site.work / "history.html";
    const auto replace = [](const std::string& text, const char* pattern, const std::string& by) {
        return std::regex_replace(text, std::regex(pattern), by);
    };
    // Arguments, status, what is in the outputs when every white space is one blank.
    std::istringstream rows(R"(config office|0|server = "127.0.0.1"
config nobody|3|nobody.toml: No such file
config x/office|3|not the name of a configuration
status --max-age 1000d|0|office 2026-09-22T141320Z
status --max-age 1000d|0| full good 8 144.144 KB 2:30 2:30 0 0
status office --max-age 1s|2|the last good night is older than 1s
status --json|2|"objects": 8, "bytes": 144144, "seconds": 150, "missing": 0, "newly_missing": 0
find office note|0|/home/note 2026-09-21T141320Z: in /home, 140.448 KB, sha256
find office note|0| get it back: vondral-nightly restore office 2026-09-22T141320Z -i FILE, with the line: /home/note
find office /QSYS.LIB/TOOLS*|0|2026-09-21T141320Z: entry of its own
find office /nowhere|1|no night of office has such an object
find office /home|0|no include line can name it /home/added 2026-09-22T141320Z: in /home, 141.504
find office /home/added --json|0|"entry": "/home", "bytes": 141504, "sha256": "
find office /home/added --json|0|"in_part": false, "archive": "/
find office a?1?|0|restore the directory above it from 2026-09-22T141320Z; no include line
find office [a]|3|begins and ends with a bracket
diff office FIRST SECOND|0|added /home/a[1] added /home/added gone /QSYS.LIB/TOOLS.LIB other digest /QDLS larger /home:
diff office FIRST SECOND|0|larger /home: 140448 -> 141504 bytes
diff office FIRST SECOND --json|0|"/home", "change": "larger", "before": 140448, "after": 141504
diff office FIRST 2026-09-23T141320Z|3|has no record
plan office -i WHAT|0|.ctar 1 /Security Data RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)
plan office -i WHAT|0| 2 /System Configuration RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL) 3 /
plan office -i WHAT|0| /QSYS.LIB/PAYROLL.LIB as /QSYS.LIB/COPY.LIB RCMD RSTLIB SAVLIB(PAYROLL)
plan office -i WHAT|0|DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(COPY) MBROPT(*ALL) ALWOBJDIF(*ALL)
plan office -i WHAT|0| then the private authorities: RCMD RSTAUT USRPRF(*ALL) *** WARNING: security data
plan office -i WHAT|0|include line: /nowhere *** nothing matches the include line: /home/a[1] (in such a line "["
plan office -i WHAT|0| begin a pattern) 4 objects from 1 archive
plan office FIRST|0|*** deleted since, and would come back: /QSYS.LIB/TOOLS.LIB 6 objects from 1 archive
plan office 2026-01-01T000000Z|3|no such night
prune office --dry-run --json|0|"it has the newest copy of 1 object, such as /QSYS.LIB/TOOLS.LIB",
prune office --dry-run --json|0|"last 1 of 7", "daily 1 of 14", "weekly 1 of 8", "monthly 1 of 12"
history office --html PAGE|0|
restore office|2|nothing is restored without --yes
run office --dry-run|0|a full night: every night is full
run office --level half|3|half is not full or changed
drill office|3|the configuration has no key drill
|3|A subcommand is required
)");
    for (std::string arguments, status, text;
         std::getline(rows, arguments, '|') && std::getline(rows, status, '|') && std::getline(rows, text);) {
        for (const auto& [word, value] :
             {std::pair("FIRST", first.Name()), {"SECOND", second.Name()}, {"WHAT", what}, {"PAGE", page}})
            arguments = replace(arguments, word, value);
        std::istringstream words(arguments);
        const Outcome outcome = site.Command({std::istream_iterator<std::string>(words), {}});
        EXPECT_EQ(std::to_string(outcome.status), status) << text << outcome.out << outcome.err;
        EXPECT_THAT(replace(outcome.out + outcome.err, "\\s+", " "), HasSubstr(text));
    }
    EXPECT_THAT(ReadFile(page),
                AllOf(HasSubstr("nights/2026-09-22T141320Z/report.html"), HasSubstr("data-label=\"files\">8</td>"),
                      Not(HasSubstr("2026-09-23")), HasSubstr("2 nights, 2 of them good"),
                      HasSubstr("width:33px\"></span><span class=\"\">1:40</span>"),
                      HasSubstr("width:50px\"></span><span class=\"slow\">2:30, 50 % slower</span>"),
                      Not(HasSubstr("(archive removed)")), Not(HasSubstr("class=\"removed\""))));
    EXPECT_THAT(site.Command({"status"}).out, Not(HasSubstr("the last night")));
    // A killed run leaves no sums: which entry has the object is not known, but the archive is there.
    WriteFile(second.File(NightFiles::Sums), "junk\n");
    EXPECT_THAT(site.Command({"find", "office", "/home/added"}).out,
                AllOf(HasSubstr("entry not known\n"), HasSubstr("restore office 2026-09-22T141320Z -i FILE")));
    fs::remove(first.File(NightFiles::Archive));
    EXPECT_THAT(site.Command({"find", "office", "*/TOOLS.LIB"}).out, HasSubstr(", archive removed\n"));
}

TEST(Commands, RestoreWhatWasPlannedAndNoMore) {
    NightSite site;
    site.Run();
    const fs::path saved = site.site.work / "saved";
    fs::copy(site.site.root.path, saved, fs::copy_options::recursive);
    fs::remove_all(site.site.root / "home");
    WriteFile(site.site.root / "Security Data", "other profiles");
    const std::string what = site.site.File("what", "/home\n");
    site.Exclude("");
    const Outcome outcome = site.Restore({"-i", what});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("1 of 1 objects restored\n"));
    EXPECT_EQ(DiffTrees(saved / "home", site.site.root / "home"), "");
    EXPECT_EQ(ReadFile(site.site.root / "Security Data"), "other profiles");
    // One object that the server refuses is told, and the status is not 0.
    site.site.options.locked = {"/QSYS.LIB/PAYROLL.LIB"};
    site.StartServer();
    const Outcome refused = site.Restore();
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("NOT RESTORED: /QSYS.LIB/PAYROLL.LIB from "));
}

TEST(Commands, DrillRestoresOneLibraryUnderAnotherName) {
    NightSite site;
    site.Run();
    const std::string older = site.Nights().back().Name();
    fs::remove_all(site.site.root / "QSYS.LIB/TOOLS.LIB");
    site.Run(); // does not have it
    const fs::path own[] = {site.site.root / "Security Data", site.site.root / "System Configuration"};
    for (const fs::path& data : own)
        WriteFile(data, "its own");
    site.config.drill = DrillPlan{"127.0.0.1", "/QSYS.LIB/TOOLS.LIB", "/QSYS.LIB/DRILL.LIB", ""};
    site.config.server = "127.0.0.9"; // not this one
    const Outcome outcome = site.Command({"drill", "office"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(ReadFile(site.site.root / "QSYS.LIB/DRILL.LIB/RUN.PGM"), "run");
    EXPECT_TRUE(ReadDrill(site.config.directory)->good);
    EXPECT_THAT(site.Command({"status"}).out, HasSubstr("office: the last drill was "));
    EXPECT_EQ(ReadFile(own[0]) + ReadFile(own[1]), "its ownits own");
    EXPECT_EQ(ReadDrill(site.config.directory)->night, older);
    site.config.drill->as = "/QSYS.LIB/TOOLONGANAME.LIB";
    EXPECT_EQ(site.Command({"drill", "office"}).status, 2);
    EXPECT_FALSE(ReadDrill(site.config.directory)->good);
}

TEST(Commands, CheckFindsWhatWouldGoWrong) {
    NightSite site;
    site.Run();
    site.StartServer();
    site.config.timezone = "Asia/Tokyo"; // the server's clock seems to be behind
    const Outcome good = site.Command({"check", "office"});
    EXPECT_EQ(good.status, 0) << good.out << good.err;
    EXPECT_THAT(good.out, AllOf(HasSubstr("ok      login as FRED\n"),
                                HasSubstr("ok      the name 127.0.0.1 has an IPv4 address\n"),
                                testing::ContainsRegex(", 9 h ago \\(/[^\n]*; if something was changed there"),
                                testing::ContainsRegex("the last full night took 14[0-9]\\.")));
    EXPECT_THAT(good.out, testing::ContainsRegex("/home +2 +140.004 KB\n"));
    EXPECT_THAT(good.out, testing::ContainsRegex("/QSYS.LIB/TOOLS.LIB +1 "));
    // Another time zone, a mistake in a path file, less to save, a passive port that is closed, a drill that goes
    // nowhere.
    site.config.drill = DrillPlan{"::1", "/QSYS.LIB/TOOLS.LIB", "/QSYS.LIB/DRILL.LIB", ""};
    site.config.timezone = "America/New_York";
    fs::last_write_time(site.site.root / "home/note", fs::file_time_type::clock::now());
    site.config.include = site.site.File("include", "/home\n/QSYS.LIB/TOOLS.LIB\n");
    site.Exclude("/home/x \n/home/it's\n");
    fs::remove_all(site.Nights().front().path);
    const Outcome bad = site.Command({"check", "office"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_THAT(bad.out,
                AllOf(testing::ContainsRegex("ok      room for the [1-9]"), Not(HasSubstr("its clock is behind"))));
    EXPECT_THAT(bad.out, HasSubstr("in the future: the server's clock differs"));
    EXPECT_THAT(bad.out, HasSubstr("line 1 has a blank at the end"));
    EXPECT_THAT(bad.out, testing::ContainsRegex(
                             "size\n/QSYS.LIB/TOOLS.LIB +1 [^\n]*\n/home +1 +4 B\nFAILED  the name ::1 has "));
    site.site.options.faults = {Replace("PASV", "425 no", 0)};
    site.StartServer();
    EXPECT_THAT(site.Command({"check", "office"}).out, HasSubstr("FAILED  directories can be listed over passive"));
    site.site.options.password = "changed";
    site.StartServer();
    EXPECT_THAT(site.Command({"check", "office"}).out, testing::ContainsRegex("FAILED  login as FRED: [^\n]"));
    const fs::path relay = site.site.File("vondral-tls", "#!/bin/sh\necho \"vondral-tls: $*\"\necho lost\nexit 3\n");
    fs::permissions(relay, fs::perms::owner_all);
    const std::string path = std::getenv("PATH");
    ::setenv("PATH", (relay.parent_path().string() + ":" + path).c_str(), 1);
    site.config.tls = TlsRules{"/ca", ""};
    EXPECT_THAT(
        site.Command({"check", "office"}).out,
        AllOf(HasSubstr("FAILED  TLS: vondral-tls: --server 127.0.0.1 --ca /ca --check\n"), Not(HasSubstr("login"))));
    ::setenv("PATH", path.c_str(), 1);
    fs::permissions(site.site.work / "secret", fs::perms{0644});
    site.config.include = site.config.directory = "/nowhere";
    site.Exclude("*\n");
    const Outcome open = site.Command({"check", "office"});
    EXPECT_EQ(open.status, 2);
    EXPECT_THAT(open.out, AllOf(HasSubstr("\nFAILED  passphrase: "), Not(HasSubstr("login")),
                                HasSubstr("/nowhere can be read: No such file"), HasSubstr("line 1 matches everything"),
                                HasSubstr("/nowhere can be written to: No such file")));
}

TEST(Commands, RunANightAndEndItWhenTold) {
    NightSite site;
    site.Run();
    site.config.keep = {1, 0, 0, 0};
    site.config.retries = 1;
    site.StartServer();
    const Outcome run = site.Command({"run", "office"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, AllOf(HasSubstr(": good: 7 files, 0.14"), HasSubstr("2026-09-21T141320Z: removed: ")));
    const Night night = site.Nights().back();
    EXPECT_TRUE(night.IsGood() && fs::exists(night.File(NightFiles::Page)));
    EXPECT_TRUE(fs::exists(site.config.directory + "/history.db"));
    EXPECT_THAT(site.Command({"prune", "office", "--dry-run"}).out,
                testing::StartsWith(night.Name() + "  keep     it has the newest copy of 7 objects, such as /"));
    // Told to end, it begins no retry, and the hook is run all the same.
    const fs::path told = site.site.work / "told";
    site.config.hooks.on_failure = {"sleep 0.1; echo $VERDICT >" + told.string()};
    while (std::time(nullptr) <= night.moment)
        ::usleep(10000);
    site.site.options.save_rate = 100'000; // bytes a second
    site.StartServer();
    Program program;
    const pid_t process = site.StartNightly(program, {"run", "office"});
    while (!Holds(site.site.Received(), "RCMD SAV"))
        ::usleep(1000);
    ::kill(process, SIGTERM);
    EXPECT_NE(program.Wait().status, 0);
    EXPECT_EQ(site.Nights().back().record->exit_status, 143);
    EXPECT_EQ(site.Nights().back().record->retries, 0);
    EXPECT_EQ(ReadFile(told), "failed\n");
}

// Whoever already holds the directory keeps it.
TEST(Commands, TwoRunsDoNotShareADirectory) {
    NightSite site;
    const Descriptor lock = LockNights(site.config.directory);
    for (const char* const command : {"run", "prune"}) {
        const Outcome second = site.Command({command, "office"});
        EXPECT_EQ(second.status, 3);
        EXPECT_THAT(second.err, HasSubstr("another run is at work"));
    }
}

} // namespace

} // namespace nightly
