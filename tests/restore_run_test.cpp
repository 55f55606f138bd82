// Whole runs of restore mode against a rehearsal server, most of them after a backup of another one.

#include <fstream>

#include <sys/stat.h>

#include "ctar.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf, testing::ContainsRegex, testing::EndsWith, testing::HasSubstr, testing::Not;

// A site with objects of every kind, saved into its archive.
struct Saved : TestSite {
    Saved() {
        rehearsal::MakeSample(root.path);
        EXPECT_EQ(Run({"-b", archive, "-x", "no"}).status, 0);
    }
};

// What the server was told by RCMD RST and MKD, each command followed by a bar.
std::string Restores(const TestSite& site) {
    std::string commands;
    for (const std::string& line : site.server->Transcript())
        if (line.starts_with("RCMD RST") || line.starts_with("MKD"))
            commands += line + "|";
    return commands;
}

TEST(Restore, BringsEverythingBackOnEveryRelease) {
    const Saved saved;
    const std::string by_layout = saved.File("made", MakeArchive(ReadArchiveFile(saved.archive).value()));
    for (const std::string disk : {"direct:", "refused:", ""}) {
        const bool old = disk == "direct:";
        TestSite fresh;
        fresh.options.release = old ? "V5R3M0" : "V5R4M0";
        fresh.program.environment["VONDRAL_TEST_DISK"] = disk;
        const Outcome outcome = fresh.Run({old ? "-v1" : "-v2", "-r", old ? by_layout : saved.archive.string()});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(DiffTrees(saved.root.path, fresh.root.path), "") << disk;
        EXPECT_THAT(Messages(outcome.out),
                    AllOf(HasSubstr("Restore Success: /QSYS.LIB/PAYROLL\n"),
                          ContainsRegex("\nRestored 3.041 MBs in # seconds\n[0-9.]+ .?B/s\n"),
                          HasSubstr(std::string("Archive  : /home\nObject   : /home\nRestore Success: /home\n") +
                                    (old ? "Archive  : " : "Transfer : # s\nRestore  : # s\n"))));
        EXPECT_THAT(fresh.Received(), EndsWith("|RCMD RSTAUT USRPRF(*ALL)|QUIT|"));
        EXPECT_EQ(fresh.Received().find("CRTPRNDIR(*Yes)") == std::string::npos, old);
    }
}

TEST(Restore, ReadsFromAPipe) {
    const Saved saved;
    const fs::path fifo = saved.work / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string exclude = saved.File("exclude", "/QDLS\n/Security Data\n"); // skipped by reading
    for (const bool named : {false, true}) {
        TestSite fresh;
        fresh.program.input = named ? "/dev/null" : fifo;
        fresh.Start({"-r", named ? fifo.string() : "-", "-e", exclude});
        WriteFile(fifo, ReadFile(saved.archive));
        const Outcome outcome = fresh.program.Wait();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_THAT(outcome.out, Not(HasSubstr("Object   :"))); // only with -v
        EXPECT_EQ(DiffTrees(saved.root / "home", fresh.root / "home"), "");
        EXPECT_EQ(DiffTrees(saved.root / "QSYS.LIB", fresh.root / "QSYS.LIB"), "");
        EXPECT_FALSE(fs::exists(fresh.root / "Security Data"));
        EXPECT_THAT(fresh.Received(), Not(HasSubstr("RSTAUT")));
    }
}

TEST(Restore, ChoosesEntriesPartsAndNames) {
    TestSite site;
    WriteFile(site.root / "home/a/b", "b");
    WriteFile(site.root / "home/a/c", "c");
    WriteFile(site.root / "QSYS.LIB/MYLIB.LIB/X.FILE/X.MBR", "x");
    WriteFile(site.root / "System Configuration", "lines");
    ASSERT_EQ(site.Run({"-b", site.archive, "-e", site.File("no_users", "/Security Data\n"), "-x", "no"}).status, 0);
    const std::string rst = "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(('\"/home";
    const std::string all = ") SUBTREE(*ALL) ALWOBJDIF(*ALL)|";
    const std::string library = "RCMD RSTLIB SAVLIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(";
    const std::string options = ") MBROPT(*ALL) ALWOBJDIF(*ALL)|";
    const std::string b = "MKD /home|MKD /home/a|" + rst + "/a/b\"')" + all;
    const std::string c = "MKD /home|MKD /home/a|" + rst + "/a/c\"')" + all;
    const std::string place = "MKD /other|MKD /other/place|" + rst + "/a/b\"' *INCLUDE '\"/other/place/b\"')" + all;
    const char* const bad = "bad library destination";
    struct Row {
        std::string include;
        std::string exclude; // besides the system's configuration
        std::string restores;
        const char* messages = ""; // of standard error, part
    };
    for (const Row& row : {Row{"/home/a/b :: /other/place/b", "", place},
                           {"/home/a/b\n/home/a/c", "", b + c},
                           {"/home/a/b\n/home/a/c", "/home/a/b\n", c, "/home/a/b: excluded"},
                           {"/home", "/home/a/c\n", rst + "\"') ('\"/home/a/c\"' *OMIT)" + all},
                           {"/home*", "", "", "/home: not included"}, // wild cards do not count
                           {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/NEWLIB.LIB", "", library + "NEWLIB" + options},
                           {"/QSYS.LIB/MYLIB.LIB", "", library + "*SAVLIB" + options},
                           // The entries skipped later make good for these.
                           {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/TENLETTERS.LIB", "", library + "TENLETTERS" + options},
                           {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/ELEVENCHARS.LIB", "", "", bad},
                           {"/QSYS.LIB/MYLIB.LIB :: /home/NEWLIB.LIB", "", "", bad}}) {
        TestSite fresh;
        fresh.options.release = "V5R3M0";
        fs::create_directories(fresh.root / "QSYS.LIB");
        const std::string include = fresh.File("include", row.include + "\n");
        const std::string exclude = fresh.File("exclude", "/System Configuration\n" + row.exclude);
        const Outcome outcome = fresh.Run({"-v", "-r", site.archive, "-i", include, "-e", exclude});
        EXPECT_EQ(outcome.status, 0) << row.include << outcome.err;
        EXPECT_EQ(Restores(fresh), row.restores) << row.include;
        EXPECT_THAT(Messages(outcome.err), HasSubstr(row.messages)) << row.include;
        EXPECT_NE(Holds(outcome.err, "/home: not included"), Holds(row.restores, "/home")) << row.include;
        if (row.restores == place) {
            EXPECT_EQ(ReadFile(fresh.root / "other/place/b"), "b");
        }
        if (Holds(row.restores, "NEWLIB")) {
            EXPECT_EQ(DiffTrees(site.root / "QSYS.LIB/MYLIB.LIB", fresh.root / "QSYS.LIB/NEWLIB.LIB"), "");
        }
    }
    TestSite special; // special objects bypass the include file
    const Outcome outcome = special.Run({"-v", "-r", site.archive, "-i", special.File("include", "/none\n")});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(Restores(special), "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)|");
    EXPECT_THAT(outcome.err, HasSubstr("/home: not included"));
}

// Save files of these sizes go there and back by their bytes alone.
void ComeBack(const std::vector<std::uintmax_t>& sizes) {
    TestSite site, fresh;
    std::uintmax_t archived = 512; // bytes, its sentinel included
    for (const std::uintmax_t size : sizes) {
        const std::string name = "/home/f" + std::to_string(size), path = site.root.path.string() + name;
        std::string bytes(std::min<std::uintmax_t>(size, 65537), '\0');
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 7 + bytes.size());
        WriteFile(path, bytes);
        if (size > bytes.size()) { // a hole before the end
            fs::resize_file(path, size - bytes.size());
            std::ofstream(path, std::ios::app | std::ios::binary) << bytes;
        }
        site.options.raw.insert(name);
        fresh.options.raw.insert(name);
        archived += 512 + (size + 511) / 512 * 512;
    }
    const std::string exclude = site.File("exclude", "/Security Data\n/System Configuration\n");
    ASSERT_EQ(site.Run({"-b", site.archive, "-m", "0", "-e", exclude}).status, 0);
    EXPECT_EQ(fs::file_size(site.archive), archived);
    EXPECT_EQ(fresh.Run({"-r", site.archive}).status, 0);
    EXPECT_EQ(DiffTrees(site.root / "home", fresh.root / "home"), "");
}

TEST(Restore, SaveFilesOfEveryLengthComeBack) {
    ComeBack({1, 511, 512, 513, 1024, 65535, 65536, 65537});
}

TEST(Restore, ASaveFileAboveTwoGibibytesComesBack) {
    constexpr std::uintmax_t size = (std::uintmax_t{1} << 31) + 77;
    if (fs::space(fs::temp_directory_path()).available < 3 * size)
        GTEST_SKIP() << "needs 6 GiB of room for temporary files";
    ComeBack({size});
}

// The judgement of partial and empty restores

TEST(Restore, JudgesRefusalsByTheirText) {
    // A command, its reply (none: the connection ends), the status of an archive whose only entry it meets, and whether
    // the success is logged.
    using Row = std::tuple<const char*, const char*, int, bool>;
    TestSite site;
    WriteFile(site.root / "home/f", "f");
    const std::string exclude = site.File("exclude", "/Security Data\n/System Configuration\n");
    ASSERT_EQ(site.Run({"-b", site.archive, "-e", exclude}).status, 0);
    EXPECT_LT(std::abs(std::time(nullptr) - std::stoll(ReadFile(site.archive).substr(136, 11), nullptr, 8)), 200);
    const char* const failed = "vondral[restore.cpp]: IFS object restore failed\n"
                               "vondral[restore.cpp]: failed to restore object at offset 0x0\n";
    for (const auto& [command, reply, status, logged] :
         {Row{"RCMD RST ", "550 CPF3773 5 objects restored. 2 not restored", 0, false},
          {"RCMD RST ", "550 Not all objects restored", 0, false},
          {"RCMD RST ", "550 No such thing", 255, false},
          {"RCMD RST ", "550 0 objects restored. 2 not restored", 255, false},
          {"STOR", "550 no room", 255, false},
          {"STOR", nullptr, 255, false}, // lost, which is not repeated
          {"RCMD CRTSAVF", "550 no", 255, false},
          {"RCMD NONE", "", 0, true}}) {
        TestSite fresh;
        const Outcome outcome =
            fresh.Run({"-r", site.archive}, {reply != nullptr ? Replace(command, reply) : Close(command)});
        EXPECT_EQ(outcome.status, status) << outcome.err;
        EXPECT_EQ(Holds(outcome.out, "Restore Success: "), logged) << outcome.err;
        EXPECT_EQ(Holds(Messages(outcome.err), failed), status != 0) << outcome.err;
    }
}

TEST(Restore, PartialRestoresOfTheServerAreNoFailures) {
    const Saved saved;
    TestSite fresh;
    fresh.options.locked = {"/System Configuration", "/home/FRED/notes.txt"};
    const Outcome outcome = fresh.Run({"-r", saved.archive});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err,
                AllOf(HasSubstr("550 Not all objects restored."), HasSubstr(" objects restored. 1 not restored."),
                      Not(HasSubstr("failed to restore"))));
    EXPECT_FALSE(fs::exists(fresh.root / "home/FRED/notes.txt"));
    EXPECT_EQ(TestSite().Run({"-r", saved.archive}, {Replace("RCMD RSTAUT", "550 no")}).status, 255);
}

TEST(Restore, ArchivesFromElsewhereAndDamagedOnes) {
    const ArchiveEntry bad{"/home/a", std::string(600, 'x')}, skipped{"/home/b", "skipped"}; // no save files
    const std::string good = MakeArchive({bad, bad});
    std::string damaged = good;
    damaged[1536 + 511] = 1;
    // With another size of the entry whose header is there.
    const auto resized = [&good](const std::string& size, std::size_t at = 0) {
        std::string bytes = good;
        bytes.replace(at + HeaderFields::Size.offset, size.size(), size);
        const int sum = HeaderChecksum(std::span<const char, BlockSize>(bytes.data() + at, BlockSize));
        return bytes.replace(at + HeaderFields::Checksum.offset, 7, FormatText("%07o", static_cast<unsigned>(sum)));
    };
    const std::string short_header = "vondral[restore.cpp]: read short header at offset ";
    using Row = std::tuple<std::string, int, std::string>; // an archive, the status, a part of standard error
    for (const auto& [archive, status, messages] :
         {Row{"", 255, short_header + "0x0\n"},
          {std::string(511, '\0'), 255, short_header + "0x0\n"},
          {good.substr(0, 700), 255, short_header + "0x600\n"},
          {damaged, 255, "vondral: bad header checksum at offset 0x600\n"},
          {resized("#zzzzzzzzzzz"), 255, "vondral[restore.cpp]: bad file size at offset 0x0\n"},
          {resized("77777777777"), 255, short_header + "0x200000200\n"},
          // As large as a size can be, where nothing has that much room left.
          {resized("#zjzzzzzzzz5", 1536), 255,
           "vondral[restore.cpp]: couldn't skip the rest of the failed object's 0x7FFFFFFFFFFFF5FF bytes\n"},
          // Names in an archive are no commands.
          {MakeArchive({{"/home/a\r\nMKD /intruder", "x"}}), 255, "vondral[socket.cpp]: command holds a line end\n"},
          {MakeArchive({{"/QSYS.LIB/A B.LIB", "x"}}), 255, "vondral[ftp.cpp]: bad library name\n"},
          {MakeArchive({}), 0, ""},
          {MakeArchive({{"/home", ""}}), 0, "Save file SAVTEMP in QTEMP contains no data"},
          // A later entry that is restored or skipped hides an earlier failure.
          {MakeArchive({bad, skipped}), 0, "IFS object restore failed"},
          {MakeArchive({skipped, bad}), 255, "IFS object restore failed"}}) {
        TestSite fresh;
        WriteFile(fresh.archive, archive);
        const Outcome outcome = fresh.Run({"-r", fresh.archive, "-e", fresh.File("exclude", "/home/b\n")});
        EXPECT_EQ(outcome.status, status) << messages << outcome.err;
        EXPECT_THAT(Messages(outcome.err), HasSubstr(messages));
    }
    TestSite site;
    EXPECT_THAT(site.Run({"-r", site.work.path}).err, HasSubstr("Is a directory"));
    const Outcome missing = site.Run({"-r", site.archive});
    EXPECT_EQ(missing.status, 255);
    EXPECT_THAT(Messages(missing.err), HasSubstr("vondral[restore.cpp]: open("));
}

} // namespace
