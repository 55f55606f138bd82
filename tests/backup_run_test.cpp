// Whole runs of test mode, list mode and backup mode against a rehearsal server.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using rehearsal::Fault;
using testing::AllOf, testing::ElementsAre, testing::ElementsAreArray, testing::HasSubstr, testing::Not,
    testing::WhenSorted;

struct Night : TestSite {
    Night() {
        WriteObjects(root.path);
        program.outputs[5] = work / "output";
    }
    Outcome RunBackup(std::vector<std::string> more = {}, const std::vector<Fault>& faults = {}) {
        more.insert(more.begin(), {"-b", archive, "-n", "5"});
        return Run(more, faults);
    }
    std::string Output() const { return Messages(ReadFile(work / "output")); }
    // The names in the archive, in its order; throws when it breaks the format.
    std::vector<std::string> Archived() const {
        const std::vector<ArchiveEntry> entries = ReadArchiveFile(archive).value();
        std::vector<std::string> names;
        for (const ArchiveEntry& entry : entries)
            names.push_back(entry.name);
        return names;
    }
};

// A listing of the root ends within its last line, that of "home".
const Fault HomeCut = OfKind(Fault::Kind::DataClose, "LIST /", 1, 130);
const std::string Login = "USER FRED|PASS ****|CWD /|SYST|TIME 86400 86400|";
const std::vector<std::string> Everything{"/QDLS",          "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/TOOLS.LIB",
                                          "/Security Data", "/System Configuration", "/home.savf"};

TEST(TestMode, LogsInAndOutOrSaysWhatBroke) {
    // The arguments, the server's faults, a part of standard error, and what the server received.
    using Row = std::tuple<std::vector<std::string>, std::vector<Fault>, std::string, std::string>;
    const Fault cut = OfKind(Fault::Kind::Close, "", 1, 7);
    for (const auto& [arguments, faults, err, received] :
         {Row{{"-t", "-l", "1", "-b", "/nowhere/x"}, {}, "", Login + "QUIT|"}, // the test comes before all
          {{}, {}, "vondral: don't know what to do\nusage: ", Login + "QUIT|"},
          {{"-t"}, {Replace("", "421 too busy")}, "couldn't open control connection\n", ""},
          {{"-t"}, {cut}, "control connection closed\nvondral[ftp.cpp]: not a session\n", ""},
          {{"-t"}, {Replace("PASS", "530 no")}, "PASS command failed\n  530 no\n", "USER FRED|PASS ****|QUIT|"},
          {{"-t", "-c", "FRED:here:wrong"}, {}, "login failed\n", "USER FRED|PASS ****|QUIT|"},
          {{"-t", "-s", "no.such.host.invalid"}, {}, "gethostbyname(no.such.host.invalid): ", ""}}) {
        Night night;
        const Outcome outcome = night.Run(arguments, faults);
        EXPECT_EQ(outcome.status, err.empty() ? 0 : 255) << err;
        EXPECT_EQ(outcome.err.empty(), err.empty());
        EXPECT_THAT(Messages(outcome.err), HasSubstr(err));
        EXPECT_EQ(night.Received(), received) << err;
        EXPECT_EQ(Messages(outcome.out), received.starts_with(Login) ? "** Total Run Time: # seconds\n" : "");
    }
}

TEST(ListMode, ListsOneLevelOfEachPath) {
    // An include list, the server's faults, the status, a part of standard error, and what is listed.
    using Row = std::tuple<const char*, std::vector<Fault>, int, std::string, std::string>;
    const std::string below = "/home/it's/\n/home/note\n/QSYS.LIB/PAYROLL.LIB\n/QSYS.LIB/TOOLS.LIB\n/home/it's/a\n";
    for (const auto& [include, faults, status, err, listed] :
         {Row{"/home\n/QSYS.LIB\n/none\n/home/it's/\n", {}, 255, "vondral[vondral.cpp]: list failed\n", below},
          {nullptr, {}, 0, "", "/QDLS/\n/QSYS.LIB/\n/home/\n/tmp/\n"},
          {nullptr, {HomeCut}, 255, "vondral[vondral.cpp]: unfinished line: drwx", "/QDLS/\n/QSYS.LIB/\n"},
          {"", {}, 255, "vondral: empty include list\n", ""},
          {"/tmp\n", {}, 0, "", ""}}) { // which contains nothing
        Night night;
        fs::create_directory(night.root / "tmp");
        std::vector<std::string> arguments{"-l", "5", "-b", "/nowhere"};
        if (include != nullptr)
            arguments.insert(arguments.end(), {"-i", night.File("include", include)});
        const Outcome outcome = night.Run(arguments, faults);
        EXPECT_EQ(outcome.status, status);
        EXPECT_THAT(Messages(outcome.err), HasSubstr(err));
        EXPECT_EQ(night.Output(), listed);
    }
}

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
    EXPECT_THAT(night.Archived(), ElementsAre("/Security Data", "/System Configuration", "/QDLS",
                                              "/QSYS.LIB/PAYROLL.LIB", "/QSYS.LIB/TOOLS.LIB", "/home.savf"));
    EXPECT_EQ(fs::status(night.archive).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(Backup, ReportsCatalogAndTotals) {
    Night night;
    Fault slow{.kind = Fault::Kind::Pieces, .command = "RETR", .reply = 1, .text = {}, .cuts = {1}, .pause_ms = 20};
    night.options.save_rate = 1 << 20;
    const Outcome outcome = night.RunBackup({"-C", night.work / "catalog", "-v2", "-x", "no"}, {slow});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, testing::ContainsRegex(
                                 "T00. .. Total Save Time: (0.[1-9]|[1-9]).*T00. .. Total Xfer Time: [0.]*[1-9]"));
    EXPECT_EQ(Messages(ReadFile(night.work / "catalog")),
              "/Security Data\n/System Configuration\n/QDLS\n/QSYS.LIB/PAYROLL.LIB\n/QSYS.LIB/TOOLS.LIB\n"
              "/home/it's/a file\n/home/note\n");
    EXPECT_EQ(night.Output(), "");
    const std::string out = Messages(outcome.out);
    for (const char* const part :
         {"Building Object Lists\nBuilding Block Lists\n",
          "Backup Success: /Security Data\nSize: 528.000  B\nSave: # s\nWait: # s\nXfer: # s\n",
          "** Thread 1 Complete\n** Backed up 1056.000  B\n", "** List Called    : 4\n",
          "** Objects Found  : 7\n** Parsing Errors : 0\n** Backed up 140.250 kB in ",
          "** Total Objects Attempted: 7\n** Total Objects Failed   : 0\n** Total Run Time: "})
        EXPECT_THAT(out, HasSubstr(part));
}

TEST(Backup, PartialSavesAndRefusalsAndTheirStatus) {
    Night night;
    night.options.locked = {"/home/note", "/QSYS.LIB/TOOLS.LIB/RUN.PGM"};
    const Outcome partial = night.RunBackup({"-p", "no", "-v", "-x", "no"});
    EXPECT_EQ(partial.status, 0);
    EXPECT_THAT(Messages(partial.out),
                HasSubstr("/home: 1 objects not saved\nBackup Success: /home\n** Thread 4 Complete\n"));
    EXPECT_THAT(night.Output(),
                AllOf(HasSubstr("/home: 1 objects not saved\n"), HasSubstr("/QSYS.LIB/TOOLS.LIB: 550 ")));
    EXPECT_THAT(night.Archived(), WhenSorted(ElementsAreArray(Everything)));

    const Outcome failed = night.RunBackup({"-x", "no"});
    EXPECT_EQ(failed.status, 2); // 3 of 7
    EXPECT_THAT(Messages(failed.err),
                AllOf(HasSubstr("SAV command failed\n  550 "), HasSubstr("SAVLIB command failed\n  550 ")));
    EXPECT_EQ(night.Output(), "/QSYS.LIB/TOOLS.LIB\n/home\n");
    EXPECT_THAT(failed.out, HasSubstr("** Total Objects Failed   : 3\n"));

    night.options.locked.clear(); // a recovery that is refused costs one object
    night.RunBackup({"-x", "no"}, {Close("RCMD SAVLIB LIB(PAYROLL)"), Replace("PASS", "530 no", 5)});
    EXPECT_EQ(night.Output(), "/QSYS.LIB/PAYROLL.LIB\n");
    EXPECT_THAT(night.Archived(), testing::Contains("/QSYS.LIB/TOOLS.LIB"));
}

TEST(Backup, AFailureNeverEndsWithZero) {
    // The failed count is that of the last directory that failed, here one without files.
    Night night;
    fs::create_directory(night.root / "tmp");
    const Outcome outcome = night.RunBackup({}, {Replace("RCMD SAV DEV", "550 no", 0)});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("Backup Failure: /home\n"), HasSubstr("Backup Failure: /tmp\n")));
    EXPECT_THAT(outcome.out, HasSubstr("** Total Objects Failed   : 0\n"));
}

TEST(Backup, AShareOfFailuresMakesTheStatus) {
    using Row = std::tuple<int, int, int>; // libraries besides six other objects, how many of them fail, the status
    for (const auto& [libraries, failing, status] : {Row{20, 1, 1}, {16, 2, 1}, {14, 2, 2}, {19, 3, 2}}) {
        Night night;
        fs::remove_all(night.root / "home/it's");
        for (int library = 0; library < libraries; ++library)
            WriteFile(night.root / ("QSYS.LIB/L" + std::to_string(library) + ".LIB/X.PGM"), "x");
        for (int library = 0; library < failing; ++library)
            night.options.locked.insert("/QSYS.LIB/L" + std::to_string(library) + ".LIB/X.PGM");
        const Outcome outcome = night.RunBackup();
        EXPECT_EQ(outcome.status, status) << outcome.out;
        EXPECT_THAT(outcome.out, HasSubstr("** Total Objects Failed   : " + std::to_string(failing) + "\n"));
    }
}

TEST(Backup, IncludesExcludesAndDates) {
    Night night;
    const std::string include = night.File("include", "/home/it*\n/QSYS.LIB/PAY*.LIB\n/none\nrelative\n/ho*/x\n");
    const std::string exclude = night.File("exclude", "/Security Data\n/home/it's/a file\n");
    WriteFile(night.root / "home/it's/b", "b");
    const Outcome outcome = night.RunBackup({"-i", include, "-e", exclude});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(night.Archived(),
                WhenSorted(ElementsAre("/QSYS.LIB/PAYROLL.LIB", "/System Configuration", "/home/it's/b")));
    EXPECT_EQ(Messages(outcome.err),
              "vondral: " + include +
                  ": line 4 does not begin with a slash\n"
                  "vondral[backup.cpp]: Invalid object: relative\nvondral[backup.cpp]: wild card error: /ho*/x\n");
    EXPECT_EQ(night.Output(), "/none\nrelative\n");

    night.File("include", "/Security Data\n/System Configuration\n"); // saved once, and nothing is listed for them
    const std::time_t begun = std::time(nullptr);
    EXPECT_EQ(night.RunBackup({"-i", include}).err, "");
    EXPECT_THAT(night.Archived(), ElementsAre("/Security Data", "/System Configuration"));
    const std::time_t stored = std::stoll(ReadFile(night.archive).substr(136, 11), nullptr, 8);
    EXPECT_TRUE(stored >= begun && stored <= std::time(nullptr)) << stored - begun; // seconds count

    Night dated; // only what is younger, and libraries that hold something younger, which are searched no further
    WriteFile(dated.root / "QSYS.LIB/PAYROLL.LIB/NEW.PGM", "x");
    const auto old = fs::file_time_type::clock::now() - std::chrono::hours(24 * 400);
    fs::last_write_time(dated.root / "home/note", old);
    fs::last_write_time(dated.root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", old);
    EXPECT_EQ(dated.RunBackup({"-d", std::to_string(std::time(nullptr) - 86400)}).status, 0);
    EXPECT_THAT(dated.Archived(), WhenSorted(ElementsAre("/QDLS", "/QSYS.LIB/PAYROLL.LIB", "/Security Data",
                                                         "/System Configuration", "/home.savf")));
    EXPECT_THAT(dated.Received(), Not(HasSubstr("LIST /QSYS.LIB/PAYROLL.LIB/")));
}

// What is missing because it was not listed is told, but not what is saved with the directory above it.
TEST(Backup, WhatWasNotListedIsMissingOnlyWithoutAUnitAboveIt) {
    // Besides a fault: arguments, the status, what the list of missed objects holds, and a part of standard error.
    using Row = std::tuple<Fault, std::vector<std::string>, int, std::string, std::string>;
    Night night;
    fs::create_directories(night.root / "empty/below");
    const std::string include = night.File("include", "/home\n");
    const std::string exclude = night.File("exclude", "/Security Data\n/System Configuration\n");
    const std::vector<std::string> dated{"-d", "1000000000"}, only_home{"-i", include, "-e", exclude};
    const auto unlisted = [](const char* path) { return Replace(std::string("LIST ") + path, "550 no"); };
    const std::string failed = "]: list failed\n", cut = "unfinished line: .*\n.*: 1 parse errors in directory /\n";
    for (auto [fault, arguments, status, missed, err] :
         {Row{unlisted("/QSYS.LIB/TOOLS.LIB"), dated, 2, "/QSYS.LIB/TOOLS.LIB\n", failed},
          {unlisted("/home/it's"), dated, 0, "", failed},
          {unlisted("/home/it's"), {}, 0, "", failed},
          {unlisted("/empty/below"), dated, 2, "/empty/below\n", failed},
          {unlisted("/QSYS.LIB"), {}, 2, "/QSYS.LIB\n", failed},
          {unlisted("/home"), only_home, 2, "/home\n", failed}, // unknown, and nothing else of its kind
          {HomeCut, {}, 2, "", cut}}) {
        arguments.push_back("-v");
        const Outcome outcome = night.RunBackup(arguments, {fault});
        EXPECT_EQ(outcome.status, status) << fault.command << outcome.out << outcome.err;
        EXPECT_EQ(night.Output(), missed);
        EXPECT_THAT(Messages(outcome.err), testing::ContainsRegex(err));
        EXPECT_THAT(outcome.out, HasSubstr(status == 0 ? "** Parsing Errors : 0\n" : "** Parsing Errors : 1\n"));
        EXPECT_THAT(outcome.out, testing::AnyOf(HasSubstr("** Thread "), HasSubstr("** No objects attempted")));
    }
}

// What a server says cannot add lines to the log.
TEST(Backup, ControlCharactersAreShownAsQuestionMarks) {
    Night night;
    WriteFile(night.root / "tmp/\x1b[2Ja\tb", "x");
    const Outcome outcome = night.RunBackup({"-m", "1"}, {Replace("RCMD SAVDLO", "550 no\nBackup Success: /QDLS")});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(Messages(outcome.err),
                HasSubstr("SAVDLO command failed\n  550 no?Backup Success: /QDLS\nBackup Failure: /QDLS\n"));
    EXPECT_THAT(outcome.out, HasSubstr("Backup Success: /tmp/?[2Ja?b\n"));
}

TEST(Backup, WithoutAnArchiveOrAnyObjects) {
    Night night;
    const std::string include = night.File("include", "/none\n");
    const std::string exclude = night.File("exclude", "/Security Data\n/System Configuration\n");
    const Outcome idle = night.RunBackup({"-i", include, "-e", exclude});
    EXPECT_EQ(idle.status, 0);
    EXPECT_THAT(idle.out, AllOf(HasSubstr("Object not found: /none\n"), HasSubstr("** No objects attempted\n")));
    EXPECT_THAT(night.Archived(), ElementsAre());
    EXPECT_EQ(night.RunBackup({"-i", include}, {Replace("LIST /", "550 no")}).status, 255);
    EXPECT_THAT(Messages(night.RunBackup({"-i", night.File("nothing", "")}).err),
                HasSubstr("Error reading from include stream\nvondral[backup.cpp]: BuildIncludeList failed\n"));
    const Outcome unlisted = night.RunBackup({"-i", night.File("special", "/Security Data\n"), "-e", exclude});
    EXPECT_THAT(unlisted.out, testing::Not(HasSubstr("** Total List Data")));
    EXPECT_EQ(night.Run({"-b", "/dev/null"}).status, 0); // keeps nothing, and so has nothing to flush

    // /proc takes no file from root either, whom permissions do not stop.
    const fs::path closed = ::geteuid() == 0 ? "/proc" : night.work / "closed";
    if (::geteuid() != 0) {
        fs::create_directory(closed);
        fs::permissions(closed, fs::perms::owner_read | fs::perms::owner_exec);
    }
    for (const fs::path& place : {night.work / "none", closed}) {
        night.archive = place / "archive";
        const Outcome outcome = night.RunBackup();
        EXPECT_EQ(outcome.status, 255);
        EXPECT_THAT(Messages(outcome.err), HasSubstr("vondral[backup.cpp]: open("));
    }
}

TEST(Backup, OneRunAtATimeWritesAnArchive) {
    Night night;
    const Descriptor other(::open(night.archive.c_str(), O_WRONLY | O_CREAT, 0600));
    ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
    WriteFile(night.archive, "another run's");
    const Outcome outcome = night.RunBackup();
    EXPECT_EQ(outcome.status, 255);
    EXPECT_THAT(outcome.err, HasSubstr("archive: another run is writing this archive\n"));
    EXPECT_EQ(ReadFile(night.archive), "another run's");
}

TEST(Backup, FullDisksAreNoSuccess) {
    Night limited; // room for the special objects, but not for /home
    limited.program.file_size_limit = 40000;
    const Outcome cut = limited.RunBackup({"-x", "no"});
    EXPECT_EQ(cut.status, 2);
    EXPECT_THAT(cut.err, testing::ContainsRegex(
                             "vondral\\[ftp.cpp,[0-9]+\\]: CTAR sentinel failed write\\(\\): File too large"));
    for (const char* const output : {"-C", "-n"}) {
        Night night;
        night.program.outputs[9] = "/dev/full";
        const std::string include = night.File("include", "/none\n/home\n");
        const Outcome outcome = night.RunBackup({"-i", include, output, output[1] == 'n' ? "9" : "/dev/full"});
        EXPECT_EQ(outcome.status, 255) << output;
        EXPECT_THAT(outcome.err, HasSubstr("]: write("));
    }
}

TEST(Backup, ClosedStandardStreamsNeverMeetTheArchive) {
    Night night;
    night.program.close_standard_streams = true;
    EXPECT_EQ(night.RunBackup().status, 0);
    EXPECT_THAT(night.Archived(), WhenSorted(ElementsAreArray(Everything)));
}

} // namespace
