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
    const auto entries = ReadArchiveFile(saved.archive);
    ASSERT_TRUE(entries);
    const std::string made = saved.File("made", MakeArchive(*entries)); // by the layout alone
    for (const std::string disk : {"direct:", "refused:", ""}) {
        const bool old = disk == "direct:";
        TestSite fresh;
        fresh.options.release = old ? "V5R3M0" : "V5R4M0";
        fresh.program.environment["VONDRAL_TEST_DISK"] = disk;
        const Outcome outcome = fresh.Run({old ? "-v1" : "-v2", "-r", old ? made : saved.archive.string()});
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
    const std::string head = "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ((";
    const std::string tail = ") SUBTREE(*ALL) ALWOBJDIF(*ALL)|";
    const std::string library = "RCMD RSTLIB SAVLIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(";
    const std::string options = ") MBROPT(*ALL) ALWOBJDIF(*ALL)|";
    struct Row {
        const char* include;
        std::string exclude; // besides the system's configuration
        std::string restores;
        const char* messages; // of standard error, part
    };
    for (const Row& row : {
             Row{"/home/a/b :: /other/place/b\n", "",
                 "MKD /other|MKD /other/place|" + head + "'\"/home/a/b\"' *INCLUDE '\"/other/place/b\"')" + tail, ""},
             {"/home/a/b\n/home/a/c\n", "",
              "MKD /home|MKD /home/a|" + head + "'\"/home/a/b\"')" + tail + "MKD /home|MKD /home/a|" + head +
                  "'\"/home/a/c\"')" + tail,
              ""},
             {"/home/a/b\n/home/a/c\n", "/home/a/b\n", "MKD /home|MKD /home/a|" + head + "'\"/home/a/c\"')" + tail,
              "/home/a/b: excluded"},
             {"/home\n", "/home/a/c\n", head + "'\"/home\"') ('\"/home/a/c\"' *OMIT)" + tail, ""},
             {"/home*\n", "", "", "/home: not included"}, // wild cards do not count
             {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/NEWLIB.LIB\n", "", library + "NEWLIB" + options, ""},
             {"/QSYS.LIB/MYLIB.LIB\n", "", library + "*SAVLIB" + options, ""},
             // The entries skipped later make good for these.
             {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/TENLETTERS.LIB\n", "", library + "TENLETTERS" + options, ""},
             {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/ELEVENCHARS.LIB\n", "", "", "bad library destination"},
             {"/QSYS.LIB/MYLIB.LIB :: /home/NEWLIB.LIB\n", "", "", "bad library destination"},
         }) {
        TestSite fresh;
        fresh.options.release = "V5R3M0";
        fs::create_directories(fresh.root / "QSYS.LIB");
        const std::string include = fresh.File("include", row.include);
        const std::string exclude = fresh.File("exclude", "/System Configuration\n" + row.exclude);
        const Outcome outcome = fresh.Run({"-v", "-r", site.archive, "-i", include, "-e", exclude});
        EXPECT_EQ(outcome.status, 0) << row.include << outcome.err;
        EXPECT_EQ(Restores(fresh), row.restores) << row.include;
        EXPECT_THAT(Messages(outcome.err), HasSubstr(row.messages)) << row.include;
        EXPECT_EQ(outcome.err.find("/home: not included") == outcome.err.npos,
                  row.restores.find("/home") != row.restores.npos)
            << row.include;
        if (row.restores.find("place") != row.restores.npos) {
            EXPECT_EQ(ReadFile(fresh.root / "other/place/b"), "b");
        }
        if (row.restores.find("NEWLIB") != row.restores.npos) {
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
    TestSite site;
    TestSite fresh;
    std::uintmax_t archived = 512; // bytes, its sentinel included
    for (const std::uintmax_t size : sizes) {
        const std::string name = "/home/f" + std::to_string(size);
        std::string bytes(std::min<std::uintmax_t>(size, 65537), '\0');
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 7 + bytes.size());
        WriteFile(site.root.path.string() + name, bytes);
        if (size > bytes.size()) { // a hole before the end
            fs::resize_file(site.root.path.string() + name, size - bytes.size());
            std::ofstream(site.root.path.string() + name, std::ios::app | std::ios::binary) << bytes;
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
    struct Row {
        const char* command;
        const char* reply; // null: the connection ends
        int status;        // of an archive whose only entry it meets
        bool success_line;
    };
    TestSite site;
    WriteFile(site.root / "home/f", "f");
    const std::string exclude = site.File("exclude", "/Security Data\n/System Configuration\n");
    ASSERT_EQ(site.Run({"-b", site.archive, "-e", exclude}).status, 0);
    EXPECT_LT(std::abs(std::time(nullptr) - std::stoll(ReadFile(site.archive).substr(136, 11), nullptr, 8)), 200);
    for (const Row& row : {Row{"RCMD RST ", "550 CPF3773 5 objects restored. 2 not restored", 0, false},
                           {"RCMD RST ", "550 Not all objects restored", 0, false},
                           {"RCMD RST ", "550 No such thing", 255, false},
                           {"RCMD RST ", "550 0 objects restored. 2 not restored", 255, false},
                           {"STOR", "550 no room", 255, false},
                           {"STOR", nullptr, 255, false}, // lost, which is not repeated
                           {"RCMD CRTSAVF", "550 no", 255, false},
                           {"RCMD NONE", "", 0, true}}) {
        TestSite fresh;
        const Outcome outcome = fresh.Run(
            {"-r", site.archive}, {row.reply != nullptr ? Replace(row.command, row.reply) : Close(row.command)});
        EXPECT_EQ(outcome.status, row.status) << outcome.err;
        EXPECT_EQ(Holds(outcome.out, "Restore Success: "), row.success_line) << outcome.err;
        EXPECT_EQ(Holds(Messages(outcome.err), "vondral[restore.cpp]: IFS object restore failed\n"
                                               "vondral[restore.cpp]: failed to restore object at offset 0x0\n"),
                  row.status != 0)
            << outcome.err;
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
    const ArchiveEntry bad{"/home/a", std::string(600, 'x')}; // no save file
    const ArchiveEntry skipped{"/home/b", "skipped"};
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
    struct Row {
        std::string archive;
        int status;
        std::string messages; // of standard error, part
    };
    for (const Row& row :
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
        WriteFile(fresh.archive, row.archive);
        const Outcome outcome = fresh.Run({"-r", fresh.archive, "-e", fresh.File("exclude", "/home/b\n")});
        EXPECT_EQ(outcome.status, row.status) << row.messages << outcome.err;
        EXPECT_THAT(Messages(outcome.err), HasSubstr(row.messages));
    }
    TestSite site;
    EXPECT_THAT(site.Run({"-r", site.work.path}).err, HasSubstr("Is a directory"));
    const Outcome missing = site.Run({"-r", site.archive});
    EXPECT_EQ(missing.status, 255);
    EXPECT_THAT(Messages(missing.err), HasSubstr("vondral[restore.cpp]: open("));
}

} // namespace
