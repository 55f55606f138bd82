// Whole runs of restore mode against a rehearsal server, most of them after a backup of another one.

#include <sys/stat.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using rehearsal::Fault;

// One server to save from or restore onto.
struct Site {
    TempDir root;
    rehearsal::Options options;
    std::unique_ptr<rehearsal::Server> server;

    Outcome Run(const std::vector<std::string>& arguments, const fs::path& input = "/dev/null") {
        Program program;
        Start(program, arguments, input);
        return program.Wait();
    }
    void Start(Program& program, const std::vector<std::string>& arguments, const fs::path& input = "/dev/null") {
        options.root = root.path;
        server = std::make_unique<rehearsal::Server>(options);
        program.arguments = {"-s", "127.0.0.1", "-c", "FRED:here:secret"};
        program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
        program.port = server->Port();
        program.input = input;
        program.Start();
    }
    void AddSpecialObjects() const {
        WriteFile(root / "Security Data", "profiles");
        WriteFile(root / "System Configuration", "lines");
    }
    // What the server was told by RCMD and MKD beyond preparing save files, each command followed by a bar.
    std::string Restores() const {
        std::string commands;
        for (const std::string& line : server->Transcript())
            if (line.starts_with("RCMD RST") || line.starts_with("MKD"))
                commands += line + "|";
        return commands;
    }
};

// A site with objects of every kind, saved into an archive.
struct Saved {
    Site site;
    TempDir work;
    fs::path archive = work / "archive";

    Saved() {
        rehearsal::MakeSample(site.root.path);
        EXPECT_EQ(site.Run({"-b", archive.string(), "-x", "no"}).status, 0);
    }
    fs::path File(const std::string& name, const std::string& text) const {
        WriteFile(work / name, text);
        return work / name;
    }
};

TEST(Restore, BringsEverythingBackOnEveryRelease) {
    const Saved saved;
    for (const char* release : {"V5R3M0", "V5R4M0"}) {
        // On the older release the disk refuses direct reads as well.
        ::setenv("VONDRAL_TEST_DISK", release == std::string("V5R3M0") ? "direct:" : "", 1);
        Site fresh;
        fresh.options.release = release;
        const Outcome outcome = fresh.Run({"-r", saved.archive.string(), "-v2"});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(DiffTrees(saved.site.root.path, fresh.root.path), "") << release;
        EXPECT_EQ(Holds(outcome.out, "Restore Success: /QSYS.LIB/PAYROLL\n"), true) << outcome.out;
        EXPECT_TRUE(Holds(Messages(outcome.out), "Archive  : /home\nObject   : /home\nRestore Success: /home\n"
                                                 "Transfer : # s\nRestore  : # s\n"))
            << outcome.out;
        EXPECT_TRUE(Holds(outcome.out, "Restored ")) << outcome.out;
        const std::vector<std::string> commands = fresh.server->Transcript();
        EXPECT_EQ(commands[commands.size() - 2], "RCMD RSTAUT USRPRF(*ALL)");
        EXPECT_EQ(Holds(fresh.Restores(), "CRTPRNDIR(*Yes)"), std::string(release) == "V5R4M0");
    }
    ::unsetenv("VONDRAL_TEST_DISK");
    Site silent;
    const Outcome outcome = silent.Run({"-r", saved.archive.string()});
    EXPECT_FALSE(Holds(outcome.out, "Object   :")) << outcome.out; // only with -v
}

TEST(Restore, AnArchiveMadeByTheLayoutAloneIsAsGoodAsOurOwn) {
    const Saved saved;
    const auto entries = ReadArchiveFile(saved.archive);
    ASSERT_TRUE(entries);
    WriteFile(saved.work / "made", MakeArchive(*entries));
    Site fresh;
    EXPECT_EQ(fresh.Run({"-r", (saved.work / "made").string()}).status, 0);
    EXPECT_EQ(DiffTrees(saved.site.root.path, fresh.root.path), "");
}

TEST(Restore, ReadsFromAPipe) {
    const Saved saved;
    const fs::path fifo = saved.work / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const fs::path exclude = saved.File("exclude", "/QDLS\n/Security Data\n"); // skipped by reading
    for (const bool named : {false, true}) {
        Site fresh;
        Program program;
        fresh.Start(program, {"-r", named ? fifo.string() : "-", "-e", exclude.string()}, named ? "/dev/null" : fifo);
        WriteFile(fifo, ReadFile(saved.archive));
        const Outcome outcome = program.Wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(DiffTrees(saved.site.root / "home", fresh.root / "home"), "");
        EXPECT_EQ(DiffTrees(saved.site.root / "QSYS.LIB", fresh.root / "QSYS.LIB"), "");
        EXPECT_FALSE(fs::exists(fresh.root / "Security Data"));
        EXPECT_FALSE(Holds(testing::PrintToString(fresh.server->Transcript()), "RSTAUT"));
    }
}

TEST(Restore, ChoosesEntriesPartsAndNames) {
    Site site;
    WriteFile(site.root / "home/a/b", "b");
    WriteFile(site.root / "home/a/c", "c");
    WriteFile(site.root / "QSYS.LIB/MYLIB.LIB/X.FILE/X.MBR", "x");
    WriteFile(site.root / "System Configuration", "lines");
    TempDir work;
    const fs::path archive = work / "archive";
    const fs::path no_users = work / "no_users";
    WriteFile(no_users, "/Security Data\n");
    ASSERT_EQ(site.Run({"-b", archive.string(), "-e", no_users.string(), "-x", "no"}).status, 0);
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
             {"/QSYS.LIB/MYLIB.LIB :: /QSYS.LIB/ALONGLIBNAME.LIB\n", "", "", "bad library destination"},
             {"/QSYS.LIB/MYLIB.LIB :: /home/NEWLIB.LIB\n", "", "", "bad library destination"},
         }) {
        Site fresh;
        fresh.options.release = "V5R3M0";
        fs::create_directories(fresh.root / "QSYS.LIB");
        WriteFile(work / "include", row.include);
        WriteFile(work / "exclude", "/System Configuration\n" + row.exclude);
        const Outcome outcome = fresh.Run(
            {"-v", "-r", archive.string(), "-i", (work / "include").string(), "-e", (work / "exclude").string()});
        EXPECT_EQ(outcome.status, 0) << row.include << outcome.err;
        EXPECT_EQ(fresh.Restores(), row.restores) << row.include;
        EXPECT_TRUE(Holds(Messages(outcome.err), row.messages)) << row.include << outcome.err;
        if (Holds(row.include, "place")) {
            EXPECT_EQ(ReadFile(fresh.root / "other/place/b"), "b");
        }
        if (Holds(row.include, "NEWLIB") && Holds(row.restores, "NEWLIB")) {
            EXPECT_EQ(DiffTrees(site.root / "QSYS.LIB/MYLIB.LIB", fresh.root / "QSYS.LIB/NEWLIB.LIB"), "");
        }
    }
    WriteFile(work / "include", "/none\n");
    Site special; // special objects bypass the include file
    const Outcome outcome = special.Run({"-v", "-r", archive.string(), "-i", (work / "include").string()});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(special.Restores(), "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)|");
    EXPECT_TRUE(Holds(outcome.err, "/home: not included")) << outcome.err;
}

// Save files of lengths around the sizes of blocks and buffers go there and back by their bytes alone.
TEST(Restore, SaveFilesOfEveryLengthComeBack) {
    Site site;
    Site fresh;
    TempDir work;
    for (const std::size_t size : {1U, 511U, 512U, 513U, 1024U, 65535U, 65536U, 65537U}) {
        const std::string name = "/home/f" + std::to_string(size);
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>(i * 7 + size);
        WriteFile(site.root.path.string() + name, bytes);
        site.options.raw.insert(name);
        fresh.options.raw.insert(name);
    }
    site.AddSpecialObjects();
    const std::string archive = (work / "archive").string();
    ASSERT_EQ(site.Run({"-b", archive, "-m", "0"}).status, 0);
    EXPECT_EQ(fresh.Run({"-r", archive}).status, 0);
    EXPECT_EQ(DiffTrees(site.root / "home", fresh.root / "home"), "");
}

TEST(Restore, ASaveFileAboveTwoGibibytesComesBack) {
    Site site;
    Site fresh;
    TempDir work;
    const std::uintmax_t size = (std::uintmax_t{1} << 31) + 77;
    if (fs::space(work.path).available < 3 * size)
        GTEST_SKIP() << "needs 6 GiB of room for temporary files";
    WriteFile(site.root / "home/big", "begin");
    fs::resize_file(site.root / "home/big", size - 3);
    std::FILE* const end = std::fopen((site.root / "home/big").c_str(), "a");
    std::fputs("end", end);
    std::fclose(end);
    site.options.raw = fresh.options.raw = {"/home/big"};
    site.AddSpecialObjects();
    const std::string archive = (work / "archive").string();
    ASSERT_EQ(site.Run({"-b", archive, "-m", "0"}).status, 0);
    EXPECT_EQ(fs::file_size(archive), 512 * 4 + 2 * 1024 + (size + 511) / 512 * 512);
    EXPECT_EQ(fresh.Run({"-r", archive}).status, 0);
    EXPECT_EQ(DiffTrees(site.root / "home", fresh.root / "home"), "");
}

// The judgement of partial and empty restores

TEST(Restore, JudgesRefusalsByTheirText) {
    struct Row {
        const char* command;
        const char* reply;
        int status; // of an archive whose only entry it meets
        bool success_line;
    };
    for (const Row& row : {Row{"RCMD RST ", "550 CPF3773 5 objects restored. 2 not restored", 0, false},
                           {"RCMD RST ", "550 Not all objects restored", 0, false},
                           {"RCMD RST ", "550 No such thing", 255, false},
                           {"STOR", "550 no room", 255, false},
                           {"RCMD CRTSAVF", "550 no", 255, false},
                           {"RCMD NONE", "", 0, true}}) {
        Site site;
        TempDir work;
        WriteFile(site.root / "home/f", "f");
        const std::string archive = (work / "archive").string();
        WriteFile(work / "exclude", "/Security Data\n/System Configuration\n");
        ASSERT_EQ(site.Run({"-b", archive, "-e", (work / "exclude").string()}).status, 0);
        Site fresh;
        Fault fault;
        fault.kind = Fault::Kind::Replace;
        fault.command = row.command;
        fault.text = row.reply;
        fresh.options.faults = {fault};
        const Outcome outcome = fresh.Run({"-r", archive});
        EXPECT_EQ(outcome.status, row.status) << row.reply << outcome.err;
        EXPECT_EQ(Holds(outcome.out, "Restore Success: "), row.success_line) << row.reply;
        EXPECT_EQ(Holds(Messages(outcome.err), "vondral[restore.cpp]: IFS object restore failed\nvondral[restore.cpp]: "
                                               "failed to restore object at offset 0x0\n"),
                  row.status != 0)
            << outcome.err;
    }
}

TEST(Restore, PartialRestoresOfTheServerAreNoFailures) {
    const Saved saved;
    Site fresh;
    fresh.options.locked = {"/System Configuration", "/home/FRED/notes.txt"};
    const Outcome outcome = fresh.Run({"-r", saved.archive.string()});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(Holds(outcome.err, "550 Not all objects restored.")) << outcome.err;
    EXPECT_TRUE(Holds(outcome.err, " objects restored. 1 not restored.")) << outcome.err;
    EXPECT_FALSE(Holds(outcome.err, "failed to restore")) << outcome.err;
    EXPECT_FALSE(fs::exists(fresh.root / "home/FRED/notes.txt"));
}

TEST(Restore, AnEntryWithoutDataIsNoFailure) {
    TempDir work;
    WriteFile(work / "archive", MakeArchive({{"/home", ""}}));
    Site fresh;
    const Outcome outcome = fresh.Run({"-r", (work / "archive").string()});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(Holds(outcome.err, "Save file SAVTEMP in QTEMP contains no data")) << outcome.err;
}

// Archives that are none

TEST(Restore, ArchivesFromElsewhereAndDamagedOnes) {
    const std::string good = MakeArchive({{"/home/a", "not a save file"}, {"/home/b", std::string(600, 'b')}});
    const auto damaged = [&good](std::size_t at, char byte) {
        std::string bytes = good;
        bytes[at] = byte;
        return bytes;
    };
    const auto resized = [&good](const std::string& size, std::size_t at = 0) {
        std::string bytes = good.substr(at, 512);
        bytes.replace(124, 12, size);
        bytes.replace(148, 8, 8, ' ');
        int sum = 0;
        for (const char byte : bytes)
            sum += byte;
        std::array<char, 9> checksum;
        std::snprintf(checksum.data(), checksum.size(), "%07o", static_cast<unsigned>(sum));
        bytes.replace(148, 8, checksum.data(), 8);
        return good.substr(0, at) + bytes + good.substr(at + 512);
    };
    struct Row {
        std::string archive;
        const char* messages; // the last of standard error
    };
    for (const Row& row :
         {Row{"", "vondral[restore.cpp]: read short header at offset 0x0\n"},
          {std::string(511, '\0'), "vondral[restore.cpp]: read short header at offset 0x0\n"},
          {std::string(1024, '\0'), "vondral: bad header checksum at offset 0x0\n"},
          {damaged(0, 'X'), "vondral: bad header checksum at offset 0x0\n"},
          {damaged(150, '7'), "vondral: bad header checksum at offset 0x0\n"},
          {damaged(155, ' '), "vondral: bad header checksum at offset 0x0\n"},
          {damaged(1024 + 511, 1), "vondral: bad header checksum at offset 0x400\n"},
          {resized(std::string("#zzzzzzzzzzz")), "vondral[restore.cpp]: bad file size at offset 0x0\n"},
          {resized(std::string("00000000x00\0", 12)), "vondral[restore.cpp]: bad file size at offset 0x0\n"},
          {resized(std::string("77777777777\0", 12)), "vondral[restore.cpp]: read short header at offset "
                                                      "0x200000200\n"},
          // As large as a size can be, where nothing has that much room left.
          {resized("#zjzzzzzzzz5", 1024), "vondral[restore.cpp]: couldn't skip the rest of the failed object's "
                                          "0x7FFFFFFFFFFFF5FF bytes\n"},
          {good.substr(0, 700), "vondral[restore.cpp]: read short header at offset 0x400\n"}}) {
        TempDir work;
        WriteFile(work / "archive", row.archive);
        Site fresh;
        const Outcome outcome = fresh.Run({"-r", (work / "archive").string()});
        EXPECT_EQ(outcome.status, 255);
        EXPECT_TRUE(Messages(outcome.err).ends_with(row.messages)) << row.messages << outcome.err;
    }
    TempDir work;
    Site directory;
    const Outcome unreadable = directory.Run({"-r", work.path.string()});
    EXPECT_EQ(unreadable.status, 255);
    EXPECT_TRUE(Holds(unreadable.err, "Is a directory")) << unreadable.err;
    const Outcome missing = directory.Run({"-r", (work / "none").string()});
    EXPECT_TRUE(Holds(Messages(missing.err), "vondral[restore.cpp]: open(")) << missing.err;
    WriteFile(work / "empty", MakeArchive({}));
    const Outcome nothing = directory.Run({"-r", (work / "empty").string()});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_TRUE(Messages(nothing.out).starts_with("Restored 0.000 Bs in ")) << nothing.out;
}

TEST(Restore, NamesInAnArchiveAreNoCommands) {
    TempDir work;
    WriteFile(work / "archive", MakeArchive({{"/home/a\r\nMKD /intruder", "not a save file"}}));
    Site fresh;
    const Outcome outcome = fresh.Run({"-r", (work / "archive").string()});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_TRUE(Holds(Messages(outcome.err), "vondral[socket.cpp]: command holds a line end\n")) << outcome.err;
    EXPECT_FALSE(fs::exists(fresh.root / "intruder"));
}

TEST(Restore, LaterGoodEntriesMakeGood) {
    TempDir work;
    WriteFile(work / "exclude", "/home/b\n");
    for (const bool good_last : {true, false}) {
        std::vector<ArchiveEntry> entries{{"/home/a", std::string(600, 'x')}, {"/home/b", "skipped"}};
        if (!good_last)
            std::swap(entries[0], entries[1]);
        WriteFile(work / "archive", MakeArchive(entries));
        Site fresh;
        const Outcome outcome = fresh.Run({"-r", (work / "archive").string(), "-e", (work / "exclude").string()});
        EXPECT_EQ(outcome.status, good_last ? 0 : 255);
        EXPECT_TRUE(Holds(outcome.err, "IFS object restore failed")) << outcome.err;
    }
}

} // namespace
