#include "vondral.h"

#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include "credentials.h"
#include "options.h"
#include "path_file.h"
#include "test_support.h"

namespace {

// A directory for the files of a test, which are named by relative paths.
struct WorkDir : TempDir {
    WorkDir() { std::filesystem::current_path(path); }
    ~WorkDir() { std::filesystem::current_path("/"); }
};

// The command line

struct CommandLine {
    Settings settings;
    int result = 0;
    std::string messages;
    std::vector<std::string> words;

    // The words of `line` are those between its blanks.
    explicit CommandLine(const std::string& line) {
        std::istringstream stream("vondral " + line);
        for (std::string word; stream >> word;)
            words.push_back(word);
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
    const CommandLine line("-vx --wait 100000 -w -2 -l 3x -n 99 -z 0 -z 100000 -d 12y -m 1k -c fred -i /nowhere/i "
                           "-C /nowhere/c stray");
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
    EXPECT_EQ(CommandLine("").Complaints(), "vondral: you must provide a server name\n");
    EXPECT_EQ(CommandLine("-s h").Complaints(), "vondral: you must provide login credentials\n");
    EXPECT_EQ(CommandLine("-s h").result, -1);
    EXPECT_EQ(CommandLine("-c fred:here:x").result, -1);
    // Each of these alone keeps a run from starting.
    std::istringstream mistakes("-i/nowhere -e/nowhere -C/nowhere/c -n3x -mx -z0 -w-2 -vx -dx -cfred stray");
    for (std::string mistake; mistakes >> mistake;)
        EXPECT_EQ(CommandLine("-s h -c fred:here:x " + mistake).result, -1) << mistake;
    EXPECT_THAT(CommandLine("-q").Complaints(), testing::MatchesRegex("vondral: [^\n]*option[^\n]*q'?\n"));
    EXPECT_EQ(CommandLine("--help").Complaints(), "");
    EXPECT_EQ(CommandLine("--help").result, -1);
    EXPECT_EQ(CommandLine("-s h -c fred:here:x").messages, "");
    EXPECT_EQ(CommandLine("-d 9223372036854775807").Complaints(),
              "vondral: '9223372036854775807': can't parse timestamp\n");
}

TEST(Options, Values) {
    ::setenv("TZ", "XXX-5", 1);
    ::tzset();
    // verbosity, wait, timeout, precheck, threading, block size, tests, archives, and what belongs to --date
    std::istringstream rows(R"(|0,120,8,1,1,18446744073709551615,0,none,none,-1,,
-v -v -w -1 -z 1 -p no -x 0 -m 0x10 -t -t|2,*NOMAX,1,0,0,16,2,none,none,-1,,
-v -v5 -w 99999abc -z 99999 -p no -p Yes -x 0 -x 1 -m 010|5,99999abc,99999,1,1,8,0,none,none,-1,,
--verbose=0x3 --precheck= -w 0 -m 1 -d 86399|3,0,8,0,1,1,0,none,none,86399,01/02/70,04:59:59
-b a -r - -b b -m 1 -d 1700000000|0,120,8,1,1,1,0,b,-,1700000000,11/15/23,03:13:20
)");
    for (std::string words, values; std::getline(rows, words, '|') && std::getline(rows, values);) {
        const CommandLine line(words);
        const Settings& s = line.settings;
        std::ostringstream found;
        found << s.transport.verbosity << ',' << s.save.wait << ',' << s.transport.timeout << ',' << s.save.precheck
              << ',' << s.threading << ',' << s.max_block_size << ',' << s.test_count << ','
              << s.backup_path.value_or("none") << ',' << s.restore_path.value_or("none") << ','
              << s.cutoff.value_or(-1) << ',' << s.save.changed_date << ',' << s.save.changed_clock;
        EXPECT_EQ(found.str(), values) << words;
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
    const WorkDir work;
    const std::string login = "-s h -c u:here:p ";
    std::filesystem::create_symlink("X", "link");
    for (const auto& [words, other] : {std::pair("-b X -C link", "the catalog"),
                                       {"-C X -b link", "the catalog"},
                                       {"-r X -C X", "the catalog"},
                                       {"-r link -l 77", "the list"},
                                       {"-b X -i link", "the include file"},
                                       {"-b X -e X", "the exclude file"},
                                       {"-b X -n 77", "the list of what was not backed up"},
                                       {"-b X -l 77", "the list"}}) {
        WriteFile("./X", "/archive\n");
        const Descriptor file(::open("X", O_WRONLY | O_APPEND));
        ASSERT_EQ(::dup2(file.Get(), 77), 77);
        const CommandLine line(login + words);
        EXPECT_EQ(line.result, -1);
        EXPECT_THAT(line.Complaints(), testing::EndsWith(FormatText(": is the archive and cannot be %s too\n", other)));
        EXPECT_EQ(ReadFile("X"), "/archive\n");
    }
    EXPECT_EQ(CommandLine(login + "-b /dev/null -C /dev/null").result, 0);
    // A backup does not take "-" for standard input.
    WriteFile("./-", "archive");
    EXPECT_EQ(CommandLine(login + "-b - -C -").result, -1);
    EXPECT_EQ(ReadFile("-"), "archive");
}

TEST(Options, MistakesInPathFilesAreSaid) {
    const WorkDir work;
    const std::string login = "-s h -c u:here:p ";
    using Row = std::array<std::string, 4>;
    for (const auto& [file, option, mode, mistake] :
         {Row{"/a\n\n/b c\n", "-e", "-b", "line 2 is empty and matches everything"},
          {"\n", "-i", "-r", "line 1 is empty and matches everything"},
          {"\n", "-i", "-b", "line 1 is empty and names no object"},
          {" :: /x\n", "-e", "-b", "line 1 is empty and matches everything"},
          {"/a\r\n", "-i", "-b", "line 1 ends in a carriage return, which is part of its path"},
          {"/a \n/b", "-e", "-b", "line 1 has a blank at the end of a path, which is part of it"},
          {"/a  :: /b\n", "-i", "-r", "line 1 has a blank at the end of a path, which is part of it"},
          {"*\n", "-e", "-b", "line 1 matches everything"},
          {"/\n", "-e", "-b", ""},
          {"home\n", "-e", "-b", "line 1 does not begin with a slash"},
          {"/home/*\n", "-e", "-b", ""},
          {"/home/*\n", "-e", "-r", "line 1 contains a wild card and is ignored by a restore"}}) {
        WriteFile("./f", file);
        const CommandLine line(login + option + " f " + mode + " -");
        EXPECT_EQ(line.result, 0);
        EXPECT_EQ(line.messages, mistake.empty() ? "" : "vondral: f: " + mistake + "\n");
        EXPECT_EQ(std::ftell((option == "-e" ? line.settings.exclude : line.settings.include).get()), 0);
    }
    WriteFile("./f", std::string(13, '\n'));
    EXPECT_THAT(
        CommandLine(login + "-e f").messages,
        testing::EndsWith("line 10 is empty and matches everything\nvondral: f: and 3 more lines like these\n"));
}

// Credentials

TEST(Credentials, EveryFormAndEveryRefusal) {
    const WorkDir work;
    ::setenv("VONDRAL_TEST_SECRET", "from env", 1);
    using Row = std::array<std::string, 4>;
    for (const auto& [argument, file, expected, message] :
         {Row{"user:here:a:b", "", "user a:b", ""},
          {"user:HERE:", "", "user ", ""},
          {":here:x", "", " x", ""},
          {"user:Env:VONDRAL_TEST_SECRET", "", "user from env", ""},
          {"user:file:pass", "secret\r\nrest", "user secret\r",
           "Passphrase ends in a carriage return: it was written with DOS line ends"},
          {"user:file:pass", "secret", "user secret", "Passphrase truncated to 6 bytes"},
          {"user:file:pass", "", "user ", "Passphrase truncated to 0 bytes"},
          {"u:file:pass", std::string(5000, 'x'), "u " + std::string(4095, 'x'), "Passphrase truncated to 4095 bytes"},
          {"user", "", "none", "Missing password in credentials"},
          {"user:ftp:x", "", "none", "bad where following user name"},
          {"user:env:VONDRAL_NONE", "", "none", "There is no environment variable named 'VONDRAL_NONE'"},
          {"user:fd:4x", "", "none", "Bad file descriptor '4x'"},
          {"user:fd:", "", "none", "Bad file descriptor ''"},
          {"user:fd:99", "", "none", "read(99): Bad file descriptor"},
          {"user:file:/nowhere/p", "", "none", "open(/nowhere/p): No such file or directory"},
          {"user:file:.", "", "none", "read(.): Is a directory"}}) {
        WriteFile("./pass", file);
        Capture capture;
        const std::optional<Credentials> found = ReadCredentials(argument.c_str());
        EXPECT_EQ(capture.Take(), message.empty() ? "" : "vondral: " + message + "\n") << argument;
        EXPECT_EQ(found ? found->user + " " + found->password : "none", expected) << argument;
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
    EXPECT_EQ(CommandLine("stray -s h -c fred:here:secret").Complaints(), "vondral: unknown argument: stray\n");
}

TEST(Credentials, APassphraseOnTheCommandLineIsOverwritten) {
    const CommandLine line("-s h -c fred:Here:secret --credentials=bob:here:word");
    EXPECT_EQ(line.words[4], "fred:Here:******");
    EXPECT_EQ(line.words[5], "--credentials=bob:here:****");
    EXPECT_EQ(line.settings.password, "word");
}

// Path files

TEST(PathFile, MatchesPathsAndCollectsWhatLiesBelow) {
    // What is collected is "path>second path " for each path, of a question with a list.
    using Row = std::tuple<const char*, std::string, bool, std::string>;
    const WorkDir work;
    for (const auto& [file, path, restoring, collected] :
         {Row{"/QSYS.LIB/X.LIB\n", "/QSYS.LIB/X.LIB/Y.FILE", false, "/QSYS.LIB/X.LIB/Y.FILE> "},
          {"/QSYS.LIB/X.LIB\n", "/QSYS.LIB/X.LIBRARY", false, ""},
          {"/home/*\n", "/home/a", false, "/home/a> "},
          {"/home/*\n", "/home/a/b", false, "/home/a/b> "},
          {"/home/*\n", "/home", false, "/home/*> "},
          {"/home/*/x\n", "/home/a/b/x", false, ""}, // no wild card stands for a slash
          {"*.txt\n", "a.txt", false, "a.txt> "},
          {"/a/*\n/b\n", "/a/x", true, ""},
          {"/a/b :: /c/d\n/a/b/c\n/a\n", "/a", true, "/a/b>/c/d /a/b/c> /a> "},
          {"/a :: /b :: /c", "/a", true, "/a>/b :: /c "},
          {"/a ::\n/A\n", "/a", true, ""},
          {"", "/a", false, ""}}) {
        SCOPED_TRACE(file);
        const WildCards wild_cards = restoring ? WildCards::Ignore : WildCards::Match;
        WriteFile("./paths", file);
        const Stream stream(std::fopen("paths", "r"));
        StringList list;
        for (int repeat = 0; repeat < 2; ++repeat) { // the file is read anew each time
            list.clear();
            EXPECT_EQ(MatchPathFile(path, &list, stream.get(), wild_cards), collected.empty() ? 1 : 0);
        }
        std::string found;
        for (const StringPair& pair : list)
            found += pair.first + ">" + pair.second.value_or("") + " ";
        EXPECT_EQ(found, collected);
        EXPECT_EQ(MatchPathFile(path, nullptr, stream.get(), wild_cards), Holds(found, path + ">") ? 0 : 1);
    }
    EXPECT_EQ(MatchPathFile("/a", nullptr, nullptr, WildCards::Match), 1);
    WriteFile("./paths", "/a\n\n/b");
    const Stream lines(std::fopen("paths", "r"));
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
