#include "vondral.h"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "credentials.h"
#include "options.h"
#include "path_file.h"
#include "test_support.h"

namespace {

// The command line

struct CommandLine {
    Settings settings;
    int result = 0;
    std::string messages;
    std::vector<std::string> words;

    explicit CommandLine(std::vector<std::string> given) : words(std::move(given)) {
        words.insert(words.begin(), "vondral");
        std::vector<char*> vector;
        for (std::string& word : words)
            vector.push_back(word.data());
        vector.push_back(nullptr);
        Capture capture;
        result = ParseCommandLine(static_cast<int>(words.size()), vector.data(), settings);
        messages = capture.Take();
    }
    // The messages before the usage text.
    std::string Complaints() const { return messages.substr(0, messages.find("usage: ")); }
};

TEST(Options, TheWholeUsageText) {
    Capture capture;
    Usage();
    EXPECT_EQ(capture.Take(), ReadFile(std::filesystem::path(__FILE__).parent_path() / "usage.txt"));
}

TEST(Options, ErrorsAreCollectedAndReportedTogether) {
    const CommandLine line({"-vx", "--wait", "100000", "-w", "-2",         "-l", "3x",         "-n",
                            "99",  "-z",     "0",      "-z", "100000",     "-d", "12y",        "-m",
                            "1k",  "-c",     "fred",   "-i", "/nowhere/i", "-C", "/nowhere/c", "stray"});
    EXPECT_EQ(line.result, -1);
    EXPECT_EQ(line.Complaints(), "vondral: verbose value must be a number\ninvalid argument: --wait 100000\n"
                                 "invalid argument: --wait -2\nvondral: '3x': can't parse file descriptor\n"
                                 "vondral: fdopen(99): Bad file descriptor\ninvalid argument: --timeout 0\n"
                                 "invalid argument: --timeout 100000\nvondral: '12y': can't parse timestamp\n"
                                 "vondral: '1k': can't parse block size\nvondral: Missing password in credentials\n"
                                 "vondral: fopen(/nowhere/i): No such file or directory\n"
                                 "vondral: Failed to open catalog file /nowhere/c\nvondral: unknown argument: stray\n");
}

TEST(Options, WhatARunNeeds) {
    EXPECT_EQ(CommandLine({}).Complaints(), "vondral: you must provide a server name\n");
    EXPECT_EQ(CommandLine({"-s", "h"}).Complaints(), "vondral: you must provide login credentials\n");
    EXPECT_EQ(CommandLine({"-s", "h"}).result, -1);
    EXPECT_EQ(CommandLine({"-c", "fred:here:x"}).result, -1);
    // Each of these alone keeps a run from starting.
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"-i", "/nowhere"},
                                                  {"-e", "/nowhere"},
                                                  {"-C", "/nowhere/c"},
                                                  {"-n", "3x"},
                                                  {"-m", "x"},
                                                  {"-z", "0"},
                                                  {"-w", "-2"},
                                                  {"-vx"},
                                                  {"-d", "x"},
                                                  {"-c", "fred"},
                                                  {"stray"}}) {
        std::vector<std::string> words{"-s", "h", "-c", "fred:here:x"};
        words.insert(words.end(), wrong.begin(), wrong.end());
        EXPECT_EQ(CommandLine(words).result, -1) << wrong.front();
    }
    EXPECT_THAT(CommandLine({"-q"}).Complaints(), testing::MatchesRegex("vondral: [^\n]*option[^\n]*q'?\n"));
    EXPECT_EQ(CommandLine({"--help"}).Complaints(), "");
    EXPECT_EQ(CommandLine({"--help"}).result, -1);
    EXPECT_EQ(CommandLine({"-s", "h", "-c", "fred:here:x"}).messages, "");
    EXPECT_EQ(CommandLine({"-d", "9223372036854775807"}).Complaints(),
              "vondral: '9223372036854775807': can't parse timestamp\n");
}

TEST(Options, Values) {
    struct Row {
        std::vector<std::string> words;
        bool (*holds)(const Settings&);
        const char* zone = "UTC";
    };
    for (const Row& row : {
             Row{{"-v", "-v"}, [](const Settings& s) { return s.transport.verbosity == 2; }},
             {{"-v", "-v5"}, [](const Settings& s) { return s.transport.verbosity == 5; }},
             {{"--verbose=0x3"}, [](const Settings& s) { return s.transport.verbosity == 3; }},
             {{"-w", "-1"}, [](const Settings& s) { return s.save.wait == "*NOMAX"; }},
             {{"-w", "99999abc"}, [](const Settings& s) { return s.save.wait == "99999abc"; }},
             {{"-w", "0"}, [](const Settings& s) { return s.save.wait == "0"; }},
             {{"-z", "1"}, [](const Settings& s) { return s.transport.timeout == 1; }},
             {{"-z", "99999"}, [](const Settings& s) { return s.transport.timeout == 99999; }},
             {{"-p", "no"}, [](const Settings& s) { return !s.save.precheck; }},
             {{"-p", "Yes"}, [](const Settings& s) { return s.save.precheck; }},
             {{"-p", ""}, [](const Settings& s) { return !s.save.precheck; }},
             {{"-x", "0"}, [](const Settings& s) { return !s.threading; }},
             {{"-x", "1"}, [](const Settings& s) { return s.threading; }},
             {{"-m", "0x10"}, [](const Settings& s) { return s.max_block_size == 16; }},
             {{"-m", "010"}, [](const Settings& s) { return s.max_block_size == 8; }},
             {{}, [](const Settings& s) { return s.max_block_size == UINT64_MAX && s.save.precheck; }},
             {{"-d", "86399"},
              [](const Settings& s) {
                  return s.cutoff == 86399 && s.save.changed_date == "01/01/70" && s.save.changed_clock == "23:59:59";
              }},
             {{"-d", "1700000000"}, // in the zone of TZ below
              [](const Settings& s) { return s.save.changed_date == "11/15/23" && s.save.changed_clock == "03:13:20"; },
              "XXX-5"},
             {{"-t", "-t"}, [](const Settings& s) { return s.test_count == 2; }},
             {{"-b", "a", "-r", "-", "-b", "b"},
              [](const Settings& s) { return s.backup_path == "b" && s.restore_path == "-"; }},
         }) {
        ::setenv("TZ", row.zone, 1);
        ::tzset();
        const CommandLine line(row.words);
        EXPECT_TRUE(row.holds(line.settings)) << testing::PrintToString(row.words);
    }
}

TEST(Options, AnUnexpectedResultIsReported) {
    Capture capture;
    Settings settings;
    EXPECT_EQ(HandleOption('~', nullptr, settings), -1);
    EXPECT_EQ(HandleOption(1, nullptr, settings), -1);
    EXPECT_EQ(capture.Take(), "vondral: getopt(): ~\nvondral: getopt(): 0x01\n");
}

// The archive X is there already; each command line would destroy it.
TEST(Options, TheArchiveIsNoOtherFileOfTheRun) {
    const TempDir temp;
    const std::string archive = temp / "X", link = temp / "link";
    std::filesystem::create_symlink("X", link);
    struct Row {
        std::vector<std::string> words;
        const char* other;
    };
    for (const Row& row : {Row{{"-b", archive, "-C", link}, "the catalog"},
                           {{"-C", archive, "-b", link}, "the catalog"},
                           {{"-r", archive, "-C", archive}, "the catalog"},
                           {{"-r", link, "-l", "77"}, "the list"},
                           {{"-b", archive, "-i", link}, "the include file"},
                           {{"-b", archive, "-e", archive}, "the exclude file"},
                           {{"-b", archive, "-n", "77"}, "the list of what was not backed up"},
                           {{"-b", archive, "-l", "77"}, "the list"}}) {
        WriteFile(archive, "/archive\n");
        const Descriptor file(::open(archive.c_str(), O_WRONLY | O_APPEND));
        ASSERT_EQ(::dup2(file.Get(), 77), 77);
        std::vector<std::string> words{"-s", "h", "-c", "u:here:p"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        const CommandLine line(words);
        EXPECT_EQ(line.result, -1);
        EXPECT_THAT(line.Complaints(),
                    testing::EndsWith(std::string(": is the archive and cannot be ") + row.other + " too\n"));
        EXPECT_EQ(ReadFile(archive), "/archive\n");
    }
    EXPECT_EQ(CommandLine({"-s", "h", "-c", "u:here:p", "-b", "/dev/null", "-C", "/dev/null"}).result, 0);
    // A backup does not take "-" for standard input.
    std::filesystem::current_path(temp.path);
    WriteFile("./-", "archive");
    EXPECT_EQ(CommandLine({"-s", "h", "-c", "u:here:p", "-b", "-", "-C", "-"}).result, -1);
    EXPECT_EQ(ReadFile("-"), "archive");
    std::filesystem::current_path("/");
}

TEST(Options, MistakesInPathFilesAreSaid) {
    struct Row {
        const char* file;
        const char* option;
        bool restoring;
        std::string mistakes;
    };
    const TempDir temp;
    for (const Row& row : {Row{"/a\n\n/b c\n", "-e", false, "line 2 is empty and matches everything"},
                           {"\n", "-i", true, "line 1 is empty and matches everything"},
                           {"\n", "-i", false, "line 1 is empty and names no object"},
                           {" :: /x\n", "-e", false, "line 1 is empty and matches everything"},
                           {"/a\r\n", "-i", false, "line 1 ends in a carriage return, which is part of its path"},
                           {"/a \n/b", "-e", false, "line 1 has a blank at the end of a path, which is part of it"},
                           {"/a  :: /b\n", "-i", true, "line 1 has a blank at the end of a path, which is part of it"},
                           {"*\n", "-e", false, "line 1 matches everything"},
                           {"/\n", "-e", false, ""},
                           {"home\n", "-e", false, "line 1 does not begin with a slash"},
                           {"/home/*\n", "-e", false, ""},
                           {"/home/*\n", "-e", true, "line 1 contains a wild card and is ignored by a restore"}}) {
        WriteFile(temp / "f", row.file);
        const CommandLine line({"-s", "h", "-c", "u:here:p", row.option, temp / "f", row.restoring ? "-r" : "-b", "-"});
        EXPECT_EQ(line.result, 0);
        EXPECT_EQ(line.messages,
                  row.mistakes.empty() ? "" : "vondral: " + (temp / "f").string() + ": " + row.mistakes + "\n");
        const Stream& stream = row.option[1] == 'e' ? line.settings.exclude : line.settings.include;
        EXPECT_EQ(std::ftell(stream.get()), 0);
    }
    WriteFile(temp / "f", std::string(13, '\n'));
    EXPECT_THAT(CommandLine({"-s", "h", "-c", "u:here:p", "-e", temp / "f"}).messages,
                testing::EndsWith("line 10 is empty and matches everything\nvondral: " + (temp / "f").string() +
                                  ": and 3 more lines like these\n"));
}

// Credentials

TEST(Credentials, EveryFormAndEveryRefusal) {
    const TempDir temp;
    const std::string file = (temp / "pass").string();
    ::setenv("VONDRAL_TEST_SECRET", "from env", 1);
    struct Row {
        std::string argument;
        std::string file; // what the file holds
        std::string user; // "" with password "-": refused
        std::string password;
        std::string messages;
    };
    const std::string truncated = "vondral: Passphrase truncated to ";
    for (const Row& row :
         {Row{"user:here:a:b", "", "user", "a:b", ""},
          {"user:HERE:", "", "user", "", ""},
          {":here:x", "", "", "x", ""},
          {"user:Env:VONDRAL_TEST_SECRET", "", "user", "from env", ""},
          {"user:file:" + file, "secret\r\nrest", "user", "secret\r",
           "vondral: Passphrase ends in a carriage return: it was written with DOS line ends\n"},
          {"user:file:" + file, "secret", "user", "secret", truncated + "6 bytes\n"},
          {"user:file:" + file, "", "user", "", truncated + "0 bytes\n"},
          {"user:file:" + file, std::string(5000, 'x'), "user", std::string(4095, 'x'), truncated + "4095 bytes\n"},
          {"user", "", "", "-", "vondral: Missing password in credentials\n"},
          {"user:ftp:x", "", "", "-", "vondral: bad where following user name\n"},
          {"user:env:VONDRAL_TEST_NONE", "", "", "-",
           "vondral: There is no environment variable named 'VONDRAL_TEST_NONE'\n"},
          {"user:fd:4x", "", "", "-", "vondral: Bad file descriptor '4x'\n"},
          {"user:fd:", "", "", "-", "vondral: Bad file descriptor ''\n"},
          {"user:fd:99", "", "", "-", "vondral: read(99): Bad file descriptor\n"},
          {"user:file:/nowhere/p", "", "", "-", "vondral: open(/nowhere/p): No such file or directory\n"},
          {"user:file:" + temp.path.string(), "", "", "-",
           "vondral: read(" + temp.path.string() + "): Is a directory\n"}}) {
        WriteFile(file, row.file);
        Capture capture;
        const std::optional<Credentials> credentials = ReadCredentials(row.argument.c_str());
        EXPECT_EQ(capture.Take(), row.messages) << row.argument;
        EXPECT_EQ(credentials ? credentials->user : "", row.user) << row.argument;
        EXPECT_EQ(credentials ? credentials->password : "-", row.password) << row.argument;
    }
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::write(ends[1], "first\nsecond\n", 13), 13);
    EXPECT_EQ(ReadCredentials(("u:fd:" + std::to_string(ends[0])).c_str())->password, "first");
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), 0); // left open
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Credentials, APassphraseAfterAStrayWordIsNotShown) {
    ::setenv("POSIXLY_CORRECT", "", 1);
    EXPECT_EQ(CommandLine({"stray", "-s", "h", "-c", "fred:here:secret"}).Complaints(),
              "vondral: unknown argument: stray\n");
}

TEST(Credentials, APassphraseOnTheCommandLineIsOverwritten) {
    const CommandLine line({"-s", "h", "-c", "fred:Here:secret", "--credentials=bob:here:word"});
    EXPECT_EQ(line.words[4], "fred:Here:******");
    EXPECT_EQ(line.words[5], "--credentials=bob:here:****");
    EXPECT_EQ(line.settings.password, "word");
}

// Path files

TEST(PathFile, MatchesPathsAndCollectsWhatLiesBelow) {
    struct Row {
        const char* file;
        const char* path;
        bool restoring;
        int result;
        const char* collected; // "path>second path", of a question with a list
    };
    const TempDir temp;
    for (const Row& row : {Row{"/QSYS.LIB/X.LIB\n", "/QSYS.LIB/X.LIB/Y.FILE", false, 0, "/QSYS.LIB/X.LIB/Y.FILE> "},
                           {"/QSYS.LIB/X.LIB\n", "/QSYS.LIB/X.LIBRARY", false, 1, ""},
                           {"/home/*\n", "/home/a", false, 0, "/home/a> "},
                           {"/home/*\n", "/home/a/b", false, 0, "/home/a/b> "},
                           {"/home/*\n", "/home", false, 1, "/home/*> "},
                           {"/home/*/x\n", "/home/a/b/x", false, 1, ""}, // no wild card stands for a slash
                           {"*.txt\n", "a.txt", false, 0, "a.txt> "},
                           {"/a/*\n/b\n", "/a/x", true, 1, ""},
                           {"/a/b :: /c/d\n/a/b/c\n/a\n", "/a", true, 0, "/a/b>/c/d /a/b/c> /a> "},
                           {"/a :: /b :: /c", "/a", true, 0, "/a>/b :: /c "},
                           {"/a ::\n/A\n", "/a", true, 1, ""},
                           {"", "/a", false, 1, ""}}) {
        const WildCards wild_cards = row.restoring ? WildCards::Ignore : WildCards::Match;
        WriteFile(temp / "paths", row.file);
        const Stream stream(std::fopen((temp / "paths").c_str(), "r"));
        StringList list;
        for (int repeat = 0; repeat < 2; ++repeat) { // the file is read anew each time
            list.clear();
            EXPECT_EQ(MatchPathFile(row.path, &list, stream.get(), wild_cards), *row.collected == '\0' ? 1 : 0)
                << row.file;
        }
        std::string collected;
        for (const StringPair& pair : list)
            collected += pair.first + ">" + pair.second.value_or("") + " ";
        EXPECT_EQ(collected, row.collected) << row.file;
        EXPECT_EQ(MatchPathFile(row.path, nullptr, stream.get(), wild_cards),
                  collected.find(std::string(row.path) + ">") != collected.npos ? 0 : 1)
            << row.file;
    }
    EXPECT_EQ(MatchPathFile("/a", nullptr, nullptr, WildCards::Match), 1);
    WriteFile(temp / "paths", "/a\n\n/b");
    const Stream lines(std::fopen((temp / "paths").c_str(), "r"));
    for (const char* const expected : {"/a", "\n", "/b"}) {
        std::string line;
        EXPECT_TRUE(ReadPathLine(line, lines.get()));
        EXPECT_EQ(line, expected);
    }
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Stream pipe(::fdopen(ends[0], "r"));
    ::close(ends[1]);
    Capture capture;
    EXPECT_EQ(MatchPathFile("/a", nullptr, pipe.get(), WildCards::Match), -1);
    EXPECT_EQ(capture.Take(), "vondral: fseek(stream, 0, SEEK_SET): Illegal seek\n");
}

// The printer of list mode

std::string Printed(const std::string& include, const std::vector<std::string>& chunks, int result = 0) {
    const TempDir temp;
    Settings settings;
    settings.list.reset(std::fopen((temp / "list").c_str(), "w"));
    ListPrinterContext context{settings, include};
    int last = 0;
    for (std::string chunk : chunks) {
        int count = static_cast<int>(chunk.size());
        last = ListPrinter(&context, chunk.data(), &count);
    }
    EXPECT_EQ(last, result);
    settings.list.reset();
    return ReadFile(temp / "list");
}

TEST(ListPrinter, PrintsPathsWhole) {
    const std::string dir = "drwx---rwx   1 QPGMR    0   20480 Sep 24 18:16 ";
    const std::string file = "-rwx---rwx   1 QPGMR    0   20480 Sep 24  2009 ";
    EXPECT_EQ(Printed("/", {dir + "home\r\n" + file + "f\r\n"}), "/home/\n/f\n");
    EXPECT_EQ(Printed("/home/", {file + "a name\r\n"}), "/home/a\n"); // cut at the blank
    EXPECT_EQ(Printed("/qsys.lib", {dir + "X.lib\r\n" + dir + "X.FILE\r\n"}), "/qsys.lib/X.lib\n");
    EXPECT_EQ(Printed("/h", {"too short\r\n"}), "/h/\n");
    const std::string lines = dir + "a\r\n" + file + "b\r\n";
    for (std::size_t at = 0; at <= lines.size(); ++at) // also between the line end's two bytes
        EXPECT_EQ(Printed("/h", {lines.substr(0, at), lines.substr(at)}), "/h/a/\n/h/b\n") << at;
}

TEST(ListPrinter, Limits) {
    Capture capture;
    EXPECT_EQ(Printed("/", {std::string(4095, 'x'), "x\r\n"}), "/\n");
    EXPECT_EQ(Printed("/", {std::string(4096, 'x')}, -1), "");
    EXPECT_EQ(Printed("/", {std::string(4097, 'x') + "\r\n"}, -1), "");
    const std::string start = "- 1 A B 3 Jan 2 2009 ";
    EXPECT_EQ(Printed("/d", {start + std::string(4050, 'n') + "\r\n"}).size(), 4054U);
    EXPECT_EQ(Printed(std::string("/").append(44, 'd'), {start + std::string(4049, 'n') + "\r\n"}).size(),
              4095U); // cut
    EXPECT_EQ(Printed(std::string("/").append(45, 'd'), {start + std::string(4049, 'n') + "\r\n"}, -1), "");
    EXPECT_EQ(capture.Take(), "vondral[vondral.cpp]: buffer overflow\nvondral[vondral.cpp]: buffer overflow\n"
                              "vondral[vondral.cpp]: path too long\n");
}

} // namespace
