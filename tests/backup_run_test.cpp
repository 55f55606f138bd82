// Whole runs of test mode, list mode and backup mode against a rehearsal server.

#include <algorithm>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using rehearsal::Fault;

Fault Make(Fault::Kind kind, const std::string& command, int nth = 1, std::size_t bytes = 0,
           const std::string& text = "") {
    Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.nth = nth;
    fault.bytes = bytes;
    fault.text = text;
    return fault;
}

// A server with a few objects of every kind, and a run against it.
struct Night {
    TempDir root;
    TempDir work;
    rehearsal::Options options;
    std::unique_ptr<rehearsal::Server> server;
    Program program;

    Night() {
        WriteFile(root / "QSYS.LIB/PAYROLL.LIB/RATES.FILE/RATES.MBR", std::string(700, 'r'));
        WriteFile(root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", "run");
        WriteFile(root / "QDLS/FOLDER/LETTER", "dear all");
        WriteFile(root / "home/it's/a file", std::string(70000, 'f'));
        WriteFile(root / "home/note", "note");
        WriteFile(root / "Security Data", "profiles");
        WriteFile(root / "System Configuration", "lines");
        options.root = root.path;
        program.arguments = {"-s", "127.0.0.1", "-c", "FRED:here:secret"};
    }
    Outcome Run(const std::vector<std::string>& arguments, const std::vector<Fault>& faults = {}) {
        options.faults = faults;
        server = std::make_unique<rehearsal::Server>(options);
        program.port = server->Port();
        program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
        return program.Run();
    }
    // The commands that a session received, each followed by a bar.
    std::string Received(int session) const {
        std::string received;
        for (const std::string& command : server->Transcript(session))
            received += command + "|";
        return received;
    }
    Outcome RunBackup(std::vector<std::string> more = {}, const std::vector<Fault>& faults = {}) {
        more.insert(more.begin(), {"-b", archive.string()});
        return Run(more, faults);
    }
    // The names in the archive, in its order; "no archive" when it breaks the format.
    std::vector<std::string> Archived() const {
        const auto entries = ReadArchiveFile(archive);
        if (!entries)
            return {"no archive"};
        std::vector<std::string> names;
        for (const ArchiveEntry& entry : *entries)
            names.push_back(entry.name);
        return names;
    }
    std::vector<std::string> Sorted() const {
        std::vector<std::string> names = Archived();
        std::sort(names.begin(), names.end());
        return names;
    }
    fs::path archive = work / "archive";
};

const std::string Login = "USER FRED|PASS ****|CWD /|SYST|TIME 86400 86400|";
const std::vector<std::string> Everything{"/QDLS",          "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/TOOLS.LIB",
                                          "/Security Data", "/System Configuration", "/home.savf"};

// Test mode and list mode

TEST(TestMode, LogsInAndOut) {
    Night night;
    const Outcome outcome = night.Run({"-t", "-l", "1", "-b", "/nowhere/x"}); // the test comes before all
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(Messages(outcome.out).substr(0, 19), "** Total Run Time: ");
    EXPECT_EQ(night.Received(0), Login + "QUIT|");
}

TEST(TestMode, FailuresSayWhatBroke) {
    struct Row {
        std::vector<Fault> faults;
        const char* messages; // of standard error, its first part
    };
    for (const Row& row :
         {Row{{Make(Fault::Kind::Replace, "", 1, 0, "421 too busy")}, "couldn't open control connection\n"},
          {{Make(Fault::Kind::Close, "", 1, 7)}, "control connection closed\nvondral[ftp.cpp]: not a session\n"},
          {{Make(Fault::Kind::Silent, "")}, "poll(): timedout on control read after 60.00s\n"},
          {{Make(Fault::Kind::Replace, "PASS", 1, 0, "530 no")}, "PASS command failed\n  530 no\n"}}) {
        Night night;
        night.program.minute_ms = row.faults[0].kind == Fault::Kind::Silent ? 50 : 60000;
        const Outcome outcome = night.Run({"-t"}, row.faults);
        EXPECT_EQ(outcome.status, 255);
        EXPECT_TRUE(Holds(Messages(outcome.err), row.messages)) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    Night night;
    night.program.arguments = {"-s", "127.0.0.1", "-c", "FRED:here:wrong"};
    EXPECT_EQ(night.Run({"-t"}).status, 255);
    EXPECT_EQ(night.Received(0), "USER FRED|PASS ****|QUIT|");
    Night nobody;
    nobody.program.arguments = {"-s", "no.such.host.invalid", "-c", "FRED:here:x", "-t"};
    const Outcome unknown = nobody.program.Run();
    EXPECT_EQ(unknown.status, 255);
    EXPECT_TRUE(Holds(unknown.err, "gethostbyname(no.such.host.invalid): ")) << unknown.err;
}

TEST(ListMode, ListsOneLevelOfEachPath) {
    Night night;
    WriteFile(night.work / "include", "/home\n/QSYS.LIB\n/none\n/home/it's/\n");
    night.program.outputs[7] = night.work / "list";
    const Outcome outcome = night.Run({"-l", "7", "-i", (night.work / "include").string(), "-b", "/nowhere"});
    EXPECT_EQ(outcome.status, 255); // one of them failed
    EXPECT_TRUE(Holds(Messages(outcome.err), "LIST command failed\n  550")) << outcome.err;
    EXPECT_TRUE(Holds(Messages(outcome.err), "vondral[vondral.cpp]: list failed\n")) << outcome.err;
    EXPECT_EQ(ReadFile(night.work / "list"),
              "/home/it's/\n/home/note\n/QSYS.LIB/PAYROLL.LIB\n/QSYS.LIB/TOOLS.LIB\n/home/it's/a\n");
    Night whole;
    whole.program.outputs[7] = whole.work / "list";
    EXPECT_EQ(whole.Run({"-l", "7"}).status, 0);
    EXPECT_EQ(ReadFile(whole.work / "list"), "/QDLS/\n/QSYS.LIB/\n/home/\n");
    Night empty;
    WriteFile(empty.work / "include", "");
    EXPECT_EQ(empty.Run({"-l", "1", "-i", (empty.work / "include").string()}).status, 255);
    Night nothing; // in a directory
    fs::create_directory(nothing.root / "tmp");
    WriteFile(nothing.work / "include", "/tmp\n");
    nothing.program.outputs[7] = nothing.work / "list";
    EXPECT_EQ(nothing.Run({"-l", "7", "-i", (nothing.work / "include").string()}).status, 0);
    EXPECT_EQ(ReadFile(nothing.work / "list"), "");
}

TEST(Modes, WithoutOneTheUsageIsShown) {
    Night night;
    const Outcome outcome = night.Run({});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_TRUE(Messages(outcome.err).starts_with("vondral: don't know what to do\nusage: ")) << outcome.err;
    EXPECT_EQ(night.server->QuitCount(), 1);
}

// Backup

TEST(Backup, TheWholeConversation) {
    Night night;
    const Outcome outcome = night.RunBackup({"-x", "no"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    // Every session logs in, does this, and leaves.
    const char* const sessions[] = {
        "STRU F|MODE S|TYPE A|SITE LISTFMT 1|SITE NAMEFMT 1|"
        "PASV|LIST /|PASV|LIST /QSYS.LIB|PASV|LIST /home|PASV|LIST /home/it's|",
        "STRU F|MODE S|TYPE I|RCMD CLRSAVF FILE(QTEMP/SAV1)|RCMD CRTSAVF FILE(QTEMP/SAV1)|"
        "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV1) PRECHK(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF|"
        "RCMD CLRSAVF FILE(QTEMP/SAV1)|"
        "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV1) PRECHK(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF|",
        "STRU F|MODE S|TYPE I|RCMD CLRSAVF FILE(QTEMP/SAV2)|RCMD CRTSAVF FILE(QTEMP/SAV2)|"
        "RCMD SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV2) SAVACT(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV2.SAVF|",
        "STRU F|MODE S|TYPE I|SITE NAMEFMT 1|RCMD CLRSAVF FILE(QTEMP/SAV3)|RCMD CRTSAVF FILE(QTEMP/SAV3)|"
        "RCMD SAVLIB LIB(PAYROLL) DEV(*SAVF) SAVF(QTEMP/SAV3) PRECHK(*YES) UPDHST(*NO) SAVACT(*SYNCLIB) "
        "SAVACTWAIT(120) ACCPTH(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV3.SAVF|RCMD CLRSAVF FILE(QTEMP/SAV3)|"
        "RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/SAV3) PRECHK(*YES) UPDHST(*NO) SAVACT(*SYNCLIB) "
        "SAVACTWAIT(120) ACCPTH(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV3.SAVF|",
        "STRU F|MODE S|TYPE I|SITE NAMEFMT 1|RCMD CLRSAVF FILE(QTEMP/SAV4)|RCMD CRTSAVF FILE(QTEMP/SAV4)|"
        "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV4.FILE') OBJ(('\"/home\"')) SUBTREE(*ALL) PRECHK(*YES) UPDHST(*NO) "
        "SAVACT(*YES)|PASV|RETR /QSYS.LIB/QTEMP.LIB/SAV4.SAVF|"};
    for (int session = 0; session < 5; ++session)
        EXPECT_EQ(night.Received(session), Login + sessions[session] + "QUIT|");
    EXPECT_EQ(night.Archived(),
              (std::vector<std::string>{"/Security Data", "/System Configuration", "/QDLS", "/QSYS.LIB/PAYROLL.LIB",
                                        "/QSYS.LIB/TOOLS.LIB", "/home.savf"}));
    EXPECT_EQ(fs::status(night.archive).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(Backup, ReportsCatalogAndTotals) {
    Night night;
    night.program.outputs[5] = night.work / "missed";
    const Outcome outcome = night.RunBackup({"-C", (night.work / "catalog").string(), "-n", "5", "-v2", "-x", "no"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(Messages(ReadFile(night.work / "catalog")),
              "/Security Data\n/System Configuration\n/QDLS\n/QSYS.LIB/PAYROLL.LIB\n/QSYS.LIB/TOOLS.LIB\n"
              "/home/it's/a file\n/home/note\n");
    EXPECT_EQ(ReadFile(night.work / "missed"), "");
    const std::string out = Messages(outcome.out);
    const std::string object = "Backup Success: /Security Data\nSize: 528.000  B\nSave: # s\nWait: # s\nXfer: # s\n";
    EXPECT_TRUE(Holds(out, "Building Object Lists\nBuilding Block Lists\n")) << out;
    EXPECT_TRUE(Holds(out, object)) << out;
    EXPECT_TRUE(Holds(out, "** Thread 1 Complete\n** Backed up 1056.000  B\n")) << out;
    EXPECT_TRUE(Holds(out, "** List Called    : 4\n")) << out;
    EXPECT_TRUE(Holds(out, "** Objects Found  : 7\n** Parsing Errors : 0\n** Backed up ")) << out;
    EXPECT_TRUE(Holds(out, "** Total Objects Attempted: 7\n** Total Objects Failed   : 0\n** Total Run Time: ")) << out;
}

TEST(Backup, PartialSavesAndRefusalsAndTheirStatus) {
    const std::vector<std::string> not_checked{"-p", "no", "-v", "-n", "5", "-x", "no"};
    Night night;
    night.options.locked = {"/home/note", "/QSYS.LIB/TOOLS.LIB/RUN.PGM"};
    night.program.outputs[5] = night.work / "missed";
    const Outcome partial = night.RunBackup(not_checked);
    EXPECT_EQ(partial.status, 0);
    EXPECT_TRUE(Holds(Messages(partial.out), "/home: 1 objects not saved\nBackup Success: /home\n")) << partial.out;
    EXPECT_TRUE(Holds(Messages(ReadFile(night.work / "missed")), "/home: 1 objects not saved\n"));
    EXPECT_TRUE(Holds(Messages(ReadFile(night.work / "missed")), "/QSYS.LIB/TOOLS.LIB: 550 "));
    EXPECT_EQ(night.Sorted(), Everything);

    Night checked;
    checked.options.locked = night.options.locked;
    checked.program.outputs[5] = checked.work / "missed";
    const Outcome failed = checked.RunBackup({"-n", "5"});
    EXPECT_EQ(failed.status, 2); // 3 of 7
    EXPECT_TRUE(Holds(Messages(failed.err), "SAV command failed\n  550 ")) << failed.err;
    EXPECT_TRUE(Holds(Messages(failed.err), "SAVLIB command failed\n  550 ")) << failed.err;
    const std::string missed = Messages(ReadFile(checked.work / "missed"));
    EXPECT_TRUE(missed == "/home\n/QSYS.LIB/TOOLS.LIB\n" || missed == "/QSYS.LIB/TOOLS.LIB\n/home\n") << missed;
    EXPECT_TRUE(Holds(failed.out, "** Total Objects Failed   : 3\n")) << failed.out;
}

TEST(Backup, AFailureNeverEndsWithZero) {
    // The failed count is that of the last directory that failed, here one without files.
    Night night;
    fs::create_directory(night.root / "tmp");
    Fault refused = Make(Fault::Kind::Replace, "RCMD SAV DEV", 0, 0, "550 no");
    const Outcome outcome = night.RunBackup({}, {refused});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(Holds(outcome.err, "Backup Failure: /home\n")) << outcome.err;
    EXPECT_TRUE(Holds(outcome.err, "Backup Failure: /tmp\n")) << outcome.err;
    EXPECT_TRUE(Holds(outcome.out, "** Total Objects Failed   : 0\n")) << outcome.out;
}

TEST(Backup, AShareOfFailuresMakesTheStatus) {
    struct Row {
        int libraries; // besides six other objects
        int failing;
        int status;
    };
    for (const auto& [libraries, failing, status] : {Row{20, 1, 1}, {16, 2, 1}, {14, 2, 2}, {19, 3, 2}}) {
        Night night;
        fs::remove_all(night.root / "home/it's");
        for (int library = 0; library < libraries; ++library)
            WriteFile(night.root / ("QSYS.LIB/L" + std::to_string(library) + ".LIB/X.PGM"), "x");
        for (int library = 0; library < failing; ++library)
            night.options.locked.insert("/QSYS.LIB/L" + std::to_string(library) + ".LIB/X.PGM");
        const Outcome outcome = night.RunBackup();
        EXPECT_EQ(outcome.status, status) << outcome.out;
        EXPECT_TRUE(Holds(outcome.out, "** Total Objects Failed   : " + std::to_string(failing) + "\n")) << outcome.out;
    }
}

TEST(Backup, IncludesExcludesAndDates) {
    Night night;
    WriteFile(night.work / "include", "/home/it*\n/QSYS.LIB/PAY*.LIB\n/none\nrelative\n/ho*/x\n");
    WriteFile(night.work / "exclude", "/Security Data\n/home/it's/a file\n");
    night.program.outputs[5] = night.work / "missed";
    WriteFile(night.root / "home/it's/b", "b");
    const Outcome outcome =
        night.RunBackup({"-i", (night.work / "include").string(), "-e", (night.work / "exclude").string(), "-n", "5"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(night.Sorted(),
              (std::vector<std::string>{"/QSYS.LIB/PAYROLL.LIB", "/System Configuration", "/home/it's/b"}));
    EXPECT_EQ(Messages(outcome.err),
              "vondral: " + (night.work / "include").string() +
                  ": line 4 does not begin with a slash\n"
                  "vondral[backup.cpp]: Invalid object: relative\nvondral[backup.cpp]: wild card error: /ho*/x\n");
    EXPECT_EQ(Messages(ReadFile(night.work / "missed")), "/none\nrelative\n");

    Night special; // named as well: saved once, and nothing is listed for them
    WriteFile(special.work / "include", "/Security Data\n/System Configuration\n");
    const std::time_t begun = std::time(nullptr);
    EXPECT_EQ(special.RunBackup({"-i", (special.work / "include").string()}).err, "");
    EXPECT_EQ(special.Archived(), (std::vector<std::string>{"/Security Data", "/System Configuration"}));
    EXPECT_THAT(special.Received(0), testing::Not(testing::HasSubstr("LIST")));
    const std::time_t stored = std::stoll(ReadFile(special.archive).substr(136, 11), nullptr, 8);
    EXPECT_TRUE(stored >= begun && stored <= std::time(nullptr)) << stored - begun; // seconds count

    Night dated; // only what is younger, and libraries that hold something younger
    const auto old = fs::file_time_type::clock::now() - std::chrono::hours(24 * 400);
    fs::last_write_time(dated.root / "home/note", old);
    fs::last_write_time(dated.root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", old);
    const std::string yesterday = std::to_string(std::time(nullptr) - 86400);
    const Outcome recent = dated.RunBackup({"-d", yesterday});
    EXPECT_EQ(recent.status, 0) << recent.err;
    EXPECT_EQ(dated.Sorted(), (std::vector<std::string>{"/QDLS", "/QSYS.LIB/PAYROLL.LIB", "/Security Data",
                                                        "/System Configuration", "/home.savf"}));
}

// What is missing because it was not listed is told, but not what is saved with the directory above it.
TEST(Backup, WhatWasNotListedIsMissingOnlyWithoutAUnitAboveIt) {
    struct Row {
        const char* refused;
        bool dated;
        int status;
        const char* missed;
    };
    for (const Row& row : {Row{"LIST /QSYS.LIB/TOOLS.LIB", true, 2, "/QSYS.LIB/TOOLS.LIB\n"},
                           {"LIST /home/it's", true, 0, ""},
                           {"LIST /QSYS.LIB/PAYROLL.LIB/RATES.FILE", true, 2, "/QSYS.LIB/PAYROLL.LIB/RATES.FILE\n"},
                           {"LIST /empty/below", true, 2, "/empty/below\n"},
                           {"LIST /home/it's", false, 0, ""},
                           {"LIST /QSYS.LIB", false, 2, "/QSYS.LIB\n"}}) {
        Night night;
        fs::create_directories(night.root / "empty/below");
        night.program.outputs[5] = night.work / "missed";
        std::vector<std::string> arguments{"-n", "5", "-v"};
        if (row.dated)
            arguments.insert(arguments.end(), {"-d", "1000000000"});
        const Outcome outcome = night.RunBackup(arguments, {Make(Fault::Kind::Replace, row.refused, 1, 0, "550 no")});
        EXPECT_EQ(outcome.status, row.status) << row.refused << outcome.out << outcome.err;
        EXPECT_EQ(Messages(ReadFile(night.work / "missed")), row.missed);
        EXPECT_THAT(outcome.out,
                    testing::HasSubstr(std::string("** Parsing Errors : ") + (row.status == 0 ? "0\n" : "1\n")));
    }
}

// What a server says cannot add lines to the log.
TEST(Backup, ControlCharactersAreShownAsQuestionMarks) {
    Night night;
    WriteFile(night.root / "tmp/\x1b[2Ja\tb", "x");
    const Outcome outcome = night.RunBackup(
        {"-m", "1"}, {Make(Fault::Kind::Replace, "RCMD SAVDLO", 1, 0, "550 no\nBackup Success: /QDLS")});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(Messages(outcome.err),
                testing::HasSubstr("SAVDLO command failed\n  550 no?Backup Success: /QDLS\nBackup Failure: /QDLS\n"));
    EXPECT_THAT(outcome.out, testing::HasSubstr("Backup Success: /tmp/?[2Ja?b\n"));
}

TEST(Backup, FailuresOfTheSetUpEndTheMode) {
    Night missing;
    fs::create_directory(missing.work / "closed");
    fs::permissions(missing.work / "closed", fs::perms::owner_read | fs::perms::owner_exec);
    // /proc takes no file from root either, whom permissions do not stop.
    for (const fs::path& place :
         {missing.work / "none", fs::path(::geteuid() == 0 ? "/proc" : missing.work / "closed")}) {
        Night night;
        night.archive = place / "archive";
        const Outcome no_archive = night.RunBackup();
        EXPECT_EQ(no_archive.status, 255);
        EXPECT_TRUE(Holds(Messages(no_archive.err), "vondral[backup.cpp]: open(")) << no_archive.err;
    }
    Night refused;
    const Outcome no_list = refused.RunBackup({}, {Make(Fault::Kind::Replace, "LIST", 1, 0, "550 no")});
    EXPECT_EQ(no_list.status, 255);
    EXPECT_EQ(Messages(no_list.err),
              "vondral[ftp.cpp]: LIST command failed\n  550 no\nvondral[backup.cpp]: list failed\n"
              "vondral[backup.cpp]: BuildIncludeList failed\n");
    EXPECT_EQ(refused.server->QuitCount(), 1);
    Night nothing;
    WriteFile(nothing.work / "include", "/none\n");
    WriteFile(nothing.work / "exclude", "/Security Data\n/System Configuration\n");
    const Outcome idle =
        nothing.RunBackup({"-i", (nothing.work / "include").string(), "-e", (nothing.work / "exclude").string()});
    EXPECT_EQ(idle.status, 0);
    EXPECT_TRUE(Holds(Messages(idle.out), "Object not found: /none\n")) << idle.out;
    EXPECT_TRUE(Holds(Messages(idle.out), "** No objects attempted\n")) << idle.out;
    EXPECT_EQ(nothing.Archived(), std::vector<std::string>{});
}

TEST(Backup, ARefusedRecoveryCostsOneObject) {
    Night night;
    const Outcome outcome = night.RunBackup(
        {"-x", "no"}, {Make(Fault::Kind::Close, "RCMD SAVSECDTA"), Make(Fault::Kind::Replace, "PASS", 3, 0, "530 no")});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(Holds(Messages(outcome.err), "can't recover checkpoint\n")) << outcome.err;
    EXPECT_EQ(night.Archived().front(), "/System Configuration");
    EXPECT_EQ(night.Archived().size(), Everything.size() - 1);
}

TEST(Backup, AFailedListingIsNoSuccessWhenItCostsObjects) {
    Night libraries;
    const Outcome broken = libraries.RunBackup({}, {Make(Fault::Kind::Close, "LIST /QSYS.LIB")});
    EXPECT_EQ(broken.status, 2);
    EXPECT_TRUE(Holds(broken.out, "** Parsing Errors : 1\n")) << broken.out;
    Night below; // it is saved with the directory above it
    const Outcome told = below.RunBackup({}, {Make(Fault::Kind::Close, "LIST /home", 2)});
    EXPECT_EQ(told.status, 0);
    EXPECT_TRUE(Holds(Messages(told.err), "vondral[backup.cpp]: list failed\n/home/it's\n")) << told.err;
    EXPECT_EQ(below.Sorted(), Everything);
    Night alone; // a directory of which nothing is known, and nothing else of its kind
    WriteFile(alone.work / "include", "/home\n");
    WriteFile(alone.work / "exclude", "/Security Data\n/System Configuration\n");
    alone.program.outputs[5] = alone.work / "missed";
    const Outcome unknown =
        alone.RunBackup({"-i", (alone.work / "include").string(), "-e", (alone.work / "exclude").string(), "-n", "5"},
                        {Make(Fault::Kind::Replace, "LIST /home", 1, 0, "550 no")});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(Messages(ReadFile(alone.work / "missed")), "/home\n");
    Night unfinished; // "home" stands in the last line of the root's listing
    const Outcome cut = unfinished.RunBackup({}, {Make(Fault::Kind::DataClose, "LIST /", 1, 130)});
    EXPECT_EQ(cut.status, 2);
    EXPECT_TRUE(Holds(Messages(cut.err), "vondral[backup.cpp]: unfinished line: ")) << cut.err;
}

TEST(Backup, OneRunAtATimeWritesAnArchive) {
    Night night;
    const Descriptor other(::open(night.archive.c_str(), O_WRONLY | O_CREAT, 0600));
    ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
    WriteFile(night.archive, "another run's");
    EXPECT_EQ(night.RunBackup().status, 255);
    EXPECT_EQ(ReadFile(night.archive), "another run's");
}

TEST(Backup, FullDisksAreNoSuccess) {
    Night limited; // room for the special objects, but not for /home with its 70000 bytes
    limited.program.file_size_limit = 40000;
    const Outcome cut = limited.RunBackup({"-x", "no"});
    EXPECT_EQ(cut.status, 2);
    EXPECT_TRUE(Holds(cut.err, "CTAR sentinel failed write(): File too large")) << cut.err;
    for (const char* const output : {"-C", "-n"}) {
        Night night;
        night.program.outputs[9] = "/dev/full";
        WriteFile(night.work / "include", "/none\n/home\n");
        const Outcome outcome =
            night.RunBackup({"-i", (night.work / "include").string(), output, output[1] == 'n' ? "9" : "/dev/full"});
        EXPECT_EQ(outcome.status, 255) << output;
        EXPECT_TRUE(Holds(outcome.err, "]: write(")) << outcome.err;
    }
    Night nowhere; // keeps nothing, and so has nothing to flush
    EXPECT_EQ(nowhere.Run({"-b", "/dev/null"}).status, 0);
}

TEST(Backup, ClosedStandardStreamsNeverMeetTheArchive) {
    Night night;
    night.program.close_standard_streams = true;
    EXPECT_EQ(night.RunBackup().status, 0);
    EXPECT_EQ(night.Sorted(), Everything);
}

} // namespace
