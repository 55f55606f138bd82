// vondral-report on logs of the program itself, and on bytes that no run would write.

#include <algorithm>
#include <cstdlib>
#include <regex>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "display.h"
#include "log_line.h"
#include "past_run.h"
#include "test_support.h"
#include "verdict.h"

namespace {

namespace fs = std::filesystem;
using rehearsal::Fault;

constexpr char Passphrase[] = "pass\"phrase<4711>";

// A server, and the log that a run against it writes.
struct Night {
    TempDir root, work;
    rehearsal::Options options;

    Night() {
        WriteFile(root / "QSYS.LIB/PAYROLL.LIB/RATES.FILE/RATES.MBR", std::string(3000, 'r'));
        WriteFile(root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", "run");
        WriteFile(root / "home/note", "note");
        WriteFile(root / "home/<b>&\x1b[31m\xE9", "x");
        WriteFile(root / "Security Data", "profiles");
        WriteFile(root / "System Configuration", "lines");
        options.root = root.path;
        options.password = Passphrase;
    }
    // Both streams of a run in one; `status` is what it ended with.
    std::string Log(std::vector<std::string> arguments, int& status) {
        const rehearsal::Server server(options);
        Program program;
        program.port = server.Port();
        program.arguments = {"-s", "127.0.0.1", "-c", std::string("FRED:here:") + Passphrase};
        program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
        program.merged = true;
        const Outcome outcome = program.Run();
        status = outcome.status;
        return outcome.out;
    }
    std::string Backup(std::vector<std::string> arguments, int& status) {
        arguments.insert(arguments.end(), {"-b", (work / "archive").string()});
        return Log(arguments, status);
    }
};

// The tool under test in a directory of its own, its outputs in files there.
struct Tool {
    TempDir work;
    fs::path input = work / "input";

    // `feed` is the command that the tool reads from.
    int Run(const std::string& log, const std::string& arguments, const std::string& feed = "cat input") {
        WriteFile(input, log);
        WriteFile(work / "script", "cd '" + work.path.string() + "' && " + feed + " | 2>err '" + REPORT_UNDER_TEST +
                                       "' " + arguments + " >out\n");
        const std::string script = work / "script";
        const pid_t process = ::fork();
        if (process == 0) {
            ::execlp("bash", "bash", "-o", "pipefail", script.c_str(), nullptr);
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(process, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string Read(const std::string& name) const { return ReadFile(work / name); }
};

constexpr char AllOutputs[] = "--html page --json records --prometheus gauges";

std::vector<std::string> Lines(const std::string& text, const std::string& part) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        if (Holds(line, part))
            lines.push_back(line);
    return lines;
}

LoggedRun ReadRun(const std::string& log) {
    LoggedRun run;
    std::istringstream stream(log);
    for (std::string line; std::getline(stream, line);)
        TakeLogLine(run, line);
    FinishRun(run);
    return run;
}

std::string Line(const char* time, const std::string& text, const char* thread = "00") {
    return "[" + std::string(time) + "] [T" + thread + "] " + text + "\n";
}

std::string Success(const std::string& name) {
    return Line("23:59:50", "Backup Success: " + name, "01");
}

// Each status as the program itself ends and as its log tells, at every verbosity and with threads on and off; what
// the log says passes through untouched, and the passphrase goes nowhere else.
TEST(Report, TellsHowTheProgramEnded) {
    struct Row {
        std::set<std::string> locked;
        std::vector<std::string> arguments;
        const char* status;
        std::uint64_t failed, partial;
    };
    for (const Row& row : {Row{{}, {"-x", "yes"}, "complete", 0, 0},
                           {{"/home/note"}, {"-x", "no"}, "failures", 1, 0},
                           {{"/home/note", "/QSYS.LIB/TOOLS.LIB/RUN.PGM"}, {}, "failures", 2, 0},
                           {{"/home/note", "/QSYS.LIB/TOOLS.LIB/RUN.PGM"}, {"-p", "no"}, "complete", 0, 2},
                           {{}, {"-i", "/nowhere"}, "failed", 0, 0}})
        for (const char* verbosity : {"", "-v2", "-v3", "-v5"}) {
            Night night;
            night.options.locked = row.locked;
            std::vector<std::string> arguments = row.arguments;
            if (*verbosity != '\0')
                arguments.emplace_back(verbosity);
            int status = -1;
            const std::string log = night.Backup(arguments, status);
            const LoggedRun run = ReadRun(log);
            EXPECT_STREQ(StatusName(StatusOf(run)), row.status) << log;
            EXPECT_EQ(ExpectedExitStatus(run), status) << log;
            EXPECT_EQ(run.Count(ObjectOutcome::Failed), row.failed) << log;
            EXPECT_EQ(run.Count(ObjectOutcome::SavedInPart), *verbosity != '\0' ? row.partial : 0) << log; // -v1 tells
            for (const ObjectResult& object : run.missing)
                EXPECT_TRUE(Holds(object.reason, row.failed > 0 ? " command failed; 550 " : "")) << object.reason;
            Tool tool;
            EXPECT_EQ(tool.Run(log, AllOutputs), 0);
            EXPECT_EQ(tool.Read("out"), log);
            for (const char* const file : {"page", "records", "gauges", "err"}) {
                EXPECT_FALSE(Holds(tool.Read(file), "4711")) << file;
                EXPECT_NE(tool.Read(file), "") << file;
            }
            EXPECT_TRUE(Holds(tool.Read("gauges"), std::string("{status=\"") + row.status + "\"} 1\n"));
            EXPECT_EQ(Lines(tool.Read("records"), "\"type\":\"object\"").size() +
                          Lines(tool.Read("records"), "\"type\":\"failure\"").size(),
                      run.Objects());
        }
}

TEST(Report, FiguresAreTheOnesOfTheLogOrNone) {
    Night night;
    int status = -1;
    const LoggedRun timed = ReadRun(night.Backup({"-v2"}, status));
    const auto entries = ReadArchiveFile(night.work / "archive");
    double bytes = 0;
    for (const ArchiveEntry& entry : entries.value())
        bytes += static_cast<double>(entry.data.size());
    EXPECT_EQ(timed.bytes, bytes);
    EXPECT_EQ(timed.Objects(), entries->size());
    for (const ObjectResult& object : timed.drawn)
        EXPECT_TRUE(object.save && object.transfer) << object.name;
    EXPECT_TRUE(Omissions(timed).empty());

    Tool plain;
    EXPECT_EQ(plain.Run(night.Backup({}, status), AllOutputs), 0);
    EXPECT_FALSE(Holds(plain.Read("records"), "\"bytes\":"));
    EXPECT_FALSE(Holds(plain.Read("records"), "save_seconds\":"));
    EXPECT_TRUE(Holds(plain.Read("page"), "Objects saved in part (-p no): the log has them from -v1 on."));
    EXPECT_TRUE(Holds(plain.Read("page"), "Sizes and times of the objects: the log has them from -v2 on."));

    const LoggedRun restored = ReadRun(night.Log({"-v2", "-r", (night.work / "archive").string()}, status));
    EXPECT_EQ(restored.Count(ObjectOutcome::Saved), entries->size());
    EXPECT_EQ(StatusOf(restored), Status::Complete);
    EXPECT_EQ(restored.not_understood, 0U);
    night.options.locked = {"/home/note"};
    const LoggedRun partly = ReadRun(night.Log({"-r", (night.work / "archive").string()}, status));
    EXPECT_EQ(partly.Missing(), 1U);
    EXPECT_EQ(partly.missing.at(0).name, "/home");
    WriteFile(night.work / "exclude", "/Security Data\n/System Configuration\n");
    const std::vector<std::string> some{"-r", (night.work / "archive").string(), "-e",
                                        (night.work / "exclude").string()};
    for (const bool told : {false, true}) {
        std::vector<std::string> arguments = some;
        if (told)
            arguments.emplace_back("-v1");
        const LoggedRun run = ReadRun(night.Log(arguments, status));
        EXPECT_EQ(run.Count(ObjectOutcome::LeftOut), 2U);
        EXPECT_EQ(run.unexplained, told ? 0U : 2U);
    }
}

// What failed stands on standard error, and what was saved in part is told from -v1 on.
TEST(Report, WhatIsNotToldIsNotZero) {
    const auto without_errors = [](const std::string& log) {
        return std::regex_replace(log, std::regex("[^\n]*(command failed\n[^\n]*|Backup Failure: [^\n]*)\n"), "");
    };
    constexpr char failed[] = "\nvondral_run_objects_failed ", missing[] = "\nvondral_run_objects_missing ";
    Night night;
    night.options.locked = {"/home/note"};
    int status = -1;
    Tool tool;
    for (const char* const verbosity : {"-v0", "-v1"}) {
        const std::string log = night.Backup({verbosity}, status);
        EXPECT_EQ(tool.Run(without_errors(log), AllOutputs), 0);
        EXPECT_FALSE(Holds(tool.Read("gauges"), failed) || Holds(tool.Read("gauges"), missing)) << log;
        EXPECT_FALSE(Holds(tool.Read("records"), "\"failed\":")) << log;
        EXPECT_FALSE(Holds(tool.Read("page"), "objects failed")) << log;
        EXPECT_TRUE(std::regex_search(tool.Read("err"), std::regex("failures: .*, [1-9] files? failed"))) << log;
        EXPECT_EQ(tool.Run(log, AllOutputs), 0);
        EXPECT_TRUE(Holds(tool.Read("gauges"), failed + std::string("1\n"))) << log;
        const bool told = std::string_view(verbosity) == "-v1";
        EXPECT_EQ(Holds(tool.Read("gauges"), missing + std::string("1\n")), told) << log;
        EXPECT_EQ(Holds(tool.Read("records"), "\"saved in part\":0"), told) << log;
    }
}

TEST(Report, AnObjectWithoutDataHasTheServersReason) {
    const std::string name = "/QSYS.LIB/A.LIB";
    const LoggedRun run =
        ReadRun(Line("01:00:00", name + ": 550 No objects saved.", "02") +
                Line("01:00:00", "Block returned no data", "02") + Line("01:00:00", "Backup Success: " + name, "02"));
    ASSERT_EQ(run.Count(ObjectOutcome::NoData), 1U);
    EXPECT_EQ(run.missing[0].reason, "the server saved it without data; 550 No objects saved.");
}

TEST(Report, LinesOfEveryKind) {
    constexpr std::string_view tag = "[23:59:58] [T03] ";
    struct Row {
        const char* text;
        LineKind kind;
        const char* what;
        double number;
    };
    for (const Row& row :
         {Row{"Backup Success: vondral: sent command \"PASS x\"", LineKind::Saved, "vondral: sent command \"PASS x\"",
              0},
          {"/home: 12 objects not saved", LineKind::SavedInPart, "/home", 0},
          {"/QSYS.LIB/A.LIB: 550 CPF3777 some", LineKind::SavedInPart, "/QSYS.LIB/A.LIB", 0},
          {"Size: 2.892 MB", LineKind::ObjectBytes, "", 2892000},
          {"** Backed up 27.844 kB", LineKind::Total, "", 28512},
          {"Xfer:   1.250 s 1687.424 KB/s", LineKind::TransferTime, "", 1.25},
          {"Size: -1 B", LineKind::Unknown, "", 0},
          {"Size: 999999999999999999 GB", LineKind::Unknown, "", 0},
          {"Save: nan s", LineKind::Unknown, "", 0},
          {"Save: 1e999 s", LineKind::SaveTime, "", 1}, // a fixed-point number ends before the e
          {"other-name[ftp.cpp,511]: SAV command failed", LineKind::Message, "SAV command failed", 0},
          {"vondral[backup.cpp:250] : Error reading", LineKind::Message, "Error reading", 0},
          {"vondral: sent command \"PASS secret\"", LineKind::Sent, "", 0},
          {"vondral: sent command \"RCMD SAVLIB LIB(PAY) DEV(*SAVF)\"", LineKind::Sent, "PAY", 0},
          {"vondral: sent command \"RCMD SAV DEV('x') OBJ(('\"/home/a b\"')) X\"", LineKind::Sent, "/home/a b", 0},
          {"vondral[ftp.cpp,1]: Backup Terminated Cleanly", LineKind::Terminated, "", 0},
          {"0.000 B/s", LineKind::Silent, "", 0},
          {"93.509 MB/s", LineKind::Silent, "", 0},
          {"93.509 lumps B/s", LineKind::Unknown, "", 0},
          {"220-QTCP at HOST: ready", LineKind::Unknown, "", 0},
          {"", LineKind::Unknown, "", 0}}) {
        const std::string text = std::string(tag) + row.text;
        const LogLine line = ParseLogLine(text);
        EXPECT_EQ(line.kind, row.kind) << row.text;
        EXPECT_EQ(line.text, row.what) << row.text;
        EXPECT_EQ(line.number, row.number) << row.text;
        EXPECT_EQ(line.time, 86398);
        EXPECT_EQ(line.thread, 3);
    }
    for (const char* const untagged :
         {"", "[", "[23:59:58] [T03]", "[2:59:58] [T03] x", "[24:00:00] [T03] x", "[23:60:00] [T03] x",
          "[23:59:61] [T03] x", "[23:59:58] [T9999999] x", "[23:59:58] [T0x] ", "  550 no", "\xFF\xFE"})
        EXPECT_EQ(ParseLogLine(untagged).kind, LineKind::Reply) << untagged;
}

TEST(Report, TimeCrossesMidnightAndStandsStillForClocksPutBack) {
    std::string log = Line("23:59:50", "Building Object Lists") + Line("00:00:10", "Building Block Lists") +
                      Line("23:59:59", "x", "02"); // late by a moment
    EXPECT_EQ(ReadRun(log).clock.elapsed, 20);
    log += Line("02:59:59", "x") + Line("02:00:00", "x");
    EXPECT_EQ(ReadRun(log).clock.elapsed, 10809);
    EXPECT_EQ(ReadRun(log + Line("01:00:00", "x") + Line("14:00:00", "x") + Line("01:59:59", "x")).clock.elapsed,
              86400 + 7209);
    std::tm noon{};
    noon.tm_year = 126, noon.tm_mon = 2, noon.tm_mday = 1, noon.tm_hour = 12, noon.tm_isdst = -1;
    const std::time_t known = std::mktime(&noon);
    EXPECT_EQ((LogClock{0, 12 * 3600 - 5, 0, 0}).LastMoment(known), known - 5);
    EXPECT_EQ((LogClock{0, 13 * 3600, 0, 0}).LastMoment(known), known - 23 * 3600);
}

TEST(Report, ObjectsStandWhereTheLogPutsThem) {
    const auto span = [](const std::string& log) {
        std::vector<std::pair<double, double>> spans;
        for (const ObjectResult& object : Ranked(ReadRun(log).drawn, SpanOf))
            spans.emplace_back(object.begun, object.ended);
        return spans;
    };
    using Spans = std::vector<std::pair<double, double>>;
    const std::string start = Line("01:00:00", "Building Object Lists");
    const auto saved = [](const char* time, const char* thread) { return Line(time, "Backup Success: /x", thread); };
    EXPECT_EQ(span(start + saved("01:00:10", "01") + saved("01:00:50", "01")), (Spans{{10, 50}, {10, 10}}));
    EXPECT_EQ(span(start + saved("01:00:10", "01") + Line("01:00:10", "Save:   4.000 s 1 B/s", "01") +
                   Line("01:00:10", "Xfer:   2.500 s 1 B/s", "01") + saved("01:00:12", "02")),
              (Spans{{3.5, 10}, {12, 12}}));
    EXPECT_EQ(span(Line("01:00:00", "Archive  : /a") + Line("01:00:30", "Restore Success: /a") +
                   Line("01:00:30", "Archive  : /b") + Line("01:00:40", "Restore Success: /b")),
              (Spans{{0, 30}, {30, 40}}));
}

TEST(Report, ALogWithoutAnEndAndALogOfTwoRuns) {
    Night night;
    int status = -1;
    const std::string whole = night.Backup({"-v2"}, status);
    for (std::size_t length = 0; length < whole.rfind("** Total Run Time: ") + 19; length += 7) {
        const LoggedRun run = ReadRun(whole.substr(0, length));
        EXPECT_EQ(StatusOf(run), Status::Unfinished) << length;
        EXPECT_EQ(ExpectedExitStatus(run), std::nullopt);
    }
    night.options.locked = {"/home/note"};
    const LoggedRun last = ReadRun(night.Backup({}, status) + whole);
    EXPECT_EQ(last.earlier_runs, 1U);
    EXPECT_EQ(StatusOf(last), Status::Complete);
    EXPECT_TRUE(last.missing.empty());
    const LoggedRun again = ReadRun(whole.substr(0, whole.size() / 2) + "\n" + whole);
    EXPECT_EQ(again.Objects(), ReadRun(whole).Objects());
    // The last line of the first run was cut, and that of the second stands behind it.
    const std::string restore = night.Log({"-r", (night.work / "archive").string()}, status);
    for (const std::size_t length : {whole.find("Backup Success: ") + 20, whole.rfind("** Total Run Time: ") + 5}) {
        const std::string cut = whole.substr(0, length);
        EXPECT_EQ(ReadRun(cut + whole).Objects(), ReadRun(whole).Objects()) << length;
        EXPECT_EQ(ReadRun(cut + restore).Objects() + 1, ReadRun(restore).Objects()) << length;
    }
    EXPECT_EQ(StatusOf(ReadRun(Line("01:00:00", "vondral[backup.cpp,1]: Backup Terminated Cleanly"))),
              Status::Terminated);
}

TEST(Report, HostileBytesStayText) {
    const std::string name = "/home/<script>\"'&\x1b]0;x\x07\xFF\xC0\xAF\xE2\x80\xAE\r";
    std::string log = Success(name) + Line("23:59:51", "Backup Failure: " + name, "01") +
                      Success("\"} 1\nvondral_last_good_run_end_time_seconds 9e9") + std::string(300000, 'x') + "\n" +
                      std::string("\0\n\r\n[\xFF", 6);
    for (int thread = 0; thread < 2000; ++thread)
        log += Line("23:59:52", "x", std::to_string(1000 + thread).c_str());
    log += Success("/unfinished");
    log.pop_back();
    Tool tool;
    EXPECT_EQ(tool.Run(log, AllOutputs), 0);
    EXPECT_EQ(tool.Read("out"), log);
    EXPECT_TRUE(Holds(tool.Read("page"), "/home/&lt;script&gt;&quot;&#39;&amp;\xEF\xBF\xBD]0;x\xEF\xBF\xBD"));
    EXPECT_FALSE(Holds(tool.Read("page"), "<script"));
    EXPECT_TRUE(Holds(tool.Read("records"), "\"/home/<script>\\\"'&\\u001b]0;x\\u0007\\ufffd"));
    for (const char* const file : {"page", "records", "gauges", "err"})
        for (const char byte : tool.Read(file))
            EXPECT_TRUE(byte == '\n' || static_cast<unsigned char>(byte) >= 0x20) << file;
    EXPECT_FALSE(Holds(tool.Read("gauges"), "vondral_last_good_run"));
    EXPECT_EQ(Lines(tool.Read("records"), "/unfinished").size(), 1U);
    EXPECT_EQ(TerminalText("a\x1b[K\xC3\xA9\xFF"), "a?[K??");
    EXPECT_EQ(VisibleText("\xE2\x80\xAE\xC3\xA9\xED\xA0\x80\xF5"),
              "\xEF\xBF\xBD\xC3\xA9\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Report, FiguresBeyondAllReasonStayFigures) {
    std::string log;
    for (int i = 0; i < 20; ++i)
        log += Success("/huge") + Line("23:59:51", "Size: 999999999 GB", "01") +
               Line("23:59:51", "Save: 999999999999999999 s", "01") + Line("23:59:52", "Backup Failure: /late", "01");
    Tool tool;
    EXPECT_EQ(tool.Run(log, AllOutputs), 0);
    EXPECT_TRUE(Holds(tool.Read("records"), "\"bytes\":999999999000000000,"));
    EXPECT_FALSE(Holds(tool.Read("records"), "\":-")) << tool.Read("records");
    EXPECT_FALSE(Holds(tool.Read("page"), ">-"));
}

TEST(Report, FiguresHaveTheDecimalsOfTheLog) {
    const std::string log = Success("/a") + Line("23:59:50", "Save: 0.100 s", "01") +
                            Line("23:59:50", "Wait: 0.200 s", "01") + Line("23:59:50", "** Total Run Time: 0.026 s");
    Tool tool;
    EXPECT_EQ(tool.Run(log, AllOutputs), 0);
    EXPECT_TRUE(Holds(tool.Read("records"), "\"ended\":0.3,")) << tool.Read("records");
    EXPECT_TRUE(Holds(tool.Read("gauges"), "vondral_run_duration_seconds 0.026\n"));
}

TEST(Report, TheLastGoodRunIsKeptUntilThereIsABetterOne) {
    Night night;
    int status = -1;
    const std::string good = night.Backup({}, status);
    night.options.locked = {"/home/note"};
    const std::string bad = night.Backup({}, status);
    Tool tool;
    WriteFile(tool.work / "gauges", "vondral_last_good_run_end_time_seconds 1234\njunk\n"
                                    "vondral_last_good_run_end_time_seconds x\n");
    const auto last_good = [&tool] {
        return Lines(tool.Read("gauges"), "vondral_last_good_run_end_time_seconds ").back();
    };
    EXPECT_EQ(tool.Run(bad, "--fail --prometheus gauges"), 3);
    EXPECT_EQ(last_good(), "vondral_last_good_run_end_time_seconds 1234");
    EXPECT_EQ(tool.Run(good, "--fail --prometheus gauges"), 0);
    const std::string kept = last_good();
    EXPECT_NE(kept, "vondral_last_good_run_end_time_seconds 1234");
    EXPECT_EQ(tool.Run(bad, "--prometheus gauges"), 0);
    EXPECT_EQ(last_good(), kept);
    EXPECT_EQ(tool.Run(night.Log({"-t"}, status), "--fail --prometheus gauges"), 3);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Holds(tool.Read("gauges"), "{status=\"unknown\"} 1\n"));
    EXPECT_EQ(last_good(), kept);
    EXPECT_EQ(fs::status(tool.work / "gauges").permissions() & fs::perms::group_write,
              fs::status(tool.input).permissions() & fs::perms::group_write);
    EXPECT_EQ(std::distance(fs::directory_iterator(tool.work.path), {}), 5); // no temporary file is left
}

TEST(Report, LabelsStandOnEachGaugeAndNamesTheSeriesThatIsKept) {
    Night night;
    int status = -1;
    const std::string good = night.Backup({}, status);
    Tool tool;
    const std::string labels = "--prometheus gauges --label server=x --label 'a_1=\"=\\'";
    const std::string series = "vondral_last_good_run_end_time_seconds{server=\"x\",a_1=\"\\\"=\\\\\"} ";
    EXPECT_EQ(tool.Run(good, labels), 0);
    const std::string gauges = tool.Read("gauges");
    EXPECT_EQ(Lines(gauges, series).size(), 1U) << gauges;
    EXPECT_EQ(Lines(gauges, "{server=\"x\",a_1=").size(), Lines(gauges, "vondral_").size() - Lines(gauges, "#").size());
    EXPECT_TRUE(Holds(gauges, ",status=\"complete\"} 1\n"));
    WriteFile(tool.work / "gauges", series + "1234\nvondral_last_good_run_end_time_seconds 5\n");
    EXPECT_EQ(tool.Run(Success("/a"), labels), 0);
    EXPECT_EQ(Lines(tool.Read("gauges"), series), std::vector<std::string>{series + "1234"});
    for (const char* const label :
         {"status=x", "__x=1", "1x=1", "=1", "x", "\"x y=1\"", "$'x=1\\n'", "$'x=\\xff'", "x=1 --label x=2"})
        EXPECT_EQ(tool.Run(good, std::string("--label ") + label), 2) << label;
}

TEST(Report, WhatCannotBeWrittenIsSaidAndTheRestGoesOn) {
    Tool tool;
    const std::string log = Success("/a") + Success("/b");
    EXPECT_EQ(tool.Run(log, "--html none/page --json none/records --prometheus none/gauges --against none/log"), 1);
    EXPECT_EQ(tool.Read("out"), log);
    for (const char* const path : {"none/page", "none/records", "none/gauges", "none/log"})
        EXPECT_TRUE(Holds(tool.Read("err"), std::string("vondral-report: ") + path + ": No such file")) << path;
    EXPECT_EQ(tool.Run(log, "--every 0"), 2);
    EXPECT_EQ(tool.Run(log, "none"), 1);
    // A reader that goes away ends neither the tool nor the run before it, of which far more comes than a pipe holds.
    std::string many;
    while (many.size() < 1 << 20)
        many += Success("/" + std::to_string(many.size()));
    EXPECT_EQ(tool.Run(many, "--html page | true"), 0);
    EXPECT_TRUE(Holds(tool.Read("page"), "unfinished"));
    EXPECT_EQ(tool.Run(many, "--json - | true"), 0);
    EXPECT_EQ(tool.Run(log, "--json /dev/full --html /dev/full --prometheus /dev/full"), 1);
    EXPECT_EQ(Lines(tool.Read("err"), "vondral-report: /dev/full: No space left on device").size(), 3U);
    EXPECT_EQ(tool.Run(log, "--json pipe --html pipe --prometheus pipe", "mkfifo pipe && cat input"), 1);
    EXPECT_EQ(Lines(tool.Read("err"), "vondral-report: pipe: No such device or address").size(), 3U);
    EXPECT_EQ(tool.Read("out"), log);
    EXPECT_EQ(tool.Run(log, "--json -"), 0);
    EXPECT_EQ(Lines(tool.Read("out"), "{\"type\":").size(), 3U);
}

TEST(Report, OutputsThatAreLinksOrStandardOutputOrTheLog) {
    Tool tool;
    const std::string log = Success("/a");
    WriteFile(tool.work / "there", "old");
    fs::create_symlink("there", tool.work / "link");
    fs::create_symlink("not there", tool.work / "dangling");
    EXPECT_EQ(tool.Run(log, "--html link --prometheus dangling"), 0);
    EXPECT_TRUE(fs::is_symlink(tool.work / "link") && fs::is_symlink(tool.work / "dangling"));
    EXPECT_TRUE(Holds(tool.Read("there"), "<!DOCTYPE"));
    EXPECT_TRUE(Holds(tool.Read("not there"), "vondral_run_status"));
    fs::create_symlink("/proc/self/fd/1", tool.work / "stdout"); // root could replace /dev/stdout
    for (const char* const arguments : {"--prometheus stdout", "--prometheus stdout | cat"}) {
        EXPECT_EQ(tool.Run(log, arguments), 0);
        EXPECT_TRUE(fs::is_symlink(tool.work / "stdout"));
        EXPECT_EQ(tool.Read("out").find(log + "# HELP vondral_run_status"), 0U) << arguments;
    }
    WriteFile(tool.work / "old", log);
    fs::create_symlink("input", tool.work / "log");
    for (const char* const arguments : {"input --html input", "input --json ./input", "input --prometheus log",
                                        "--json old --against old", "input --no-log --json - 1>>input #"}) {
        EXPECT_EQ(tool.Run(log, arguments), 2) << arguments;
        EXPECT_TRUE(Holds(tool.Read("err"), ": is a log that is to be read\n")) << arguments;
        EXPECT_EQ(tool.Read("input") + tool.Read("old"), log + log) << arguments;
    }
}

TEST(Report, WhatChangedSinceAnEarlierRun) {
    const auto failed = [](const std::string& name) { return Line("23:59:50", "Backup Failure: " + name, "01"); };
    Tool tool;
    WriteFile(tool.work / "old", failed("/of an earlier run") + Line("23:00:00", "** Total Run Time: 1 seconds") +
                                     Line("23:00:01", "Building Object Lists") + Success("/kept") + Success("/gone") +
                                     Success("/breaks") + failed("/heals") + failed("/never"));
    EXPECT_EQ(tool.Run(Success("/kept") + failed("/breaks") + Success("/heals") + failed("/never") + failed("/new") +
                           Success("/of an earlier run"),
                       "--against old --html page --json records"),
              0);
    EXPECT_EQ(Lines(tool.Read("records"), "\"type\":\"change\""),
              (std::vector<std::string>{R"({"type":"change","change":"newly missing","name":"/breaks"})",
                                        R"({"type":"change","change":"newly missing","name":"/new"})",
                                        R"({"type":"change","change":"there again","name":"/heals"})",
                                        R"({"type":"change","change":"still missing","name":"/never"})",
                                        R"({"type":"change","change":"no longer named","name":"/gone"})"}));
    EXPECT_TRUE(Holds(tool.Read("err"), "vondral-report: newly missing: /new\n"));
    EXPECT_LT(tool.Read("page").find("id=\"missing\""), tool.Read("page").find("id=\"changes\""));
}

TEST(Report, PlainLinesOfProgressWhileTheLogIsSilent) {
    Tool tool;
    const std::string feed =
        "{ cat input; for i in {1..300}; do grep -qs '1 object |' err && break; sleep 0.1; done; }";
    EXPECT_EQ(tool.Run(Success("/a"), "--every 1s", feed), 0);
    EXPECT_EQ(tool.Read("err").find("vondral-report: 1 object | "), 0U) << tool.Read("err");
}

// On a terminal the line of progress never mixes with the log, and is gone at the end. Its width is 40 columns.
TEST(Report, ProgressOnATerminal) {
    int input[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    int terminal = -1;
    const winsize size{24, 40, 0, 0};
    const pid_t process = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (process == 0) {
        ::dup2(input[0], STDIN_FILENO);
        ::execl(REPORT_UNDER_TEST, "vondral-report", nullptr);
        ::_exit(127);
    }
    std::string seen;
    const auto read_until = [&](const std::string& wanted) {
        char buffer[1000];
        while (!Holds(seen, wanted)) {
            const ssize_t count = ::read(terminal, buffer, sizeof buffer);
            if (count <= 0)
                break;
            seen.append(buffer, static_cast<std::size_t>(count));
        }
    };
    const auto send = [&](const std::string& text) {
        EXPECT_EQ(::write(input[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    send(Line("01:00:00", "vondral: sent command \"PASS 4711\"", "01") + Success("/first"));
    read_until("1 object | ");
    send("[01:00:01] [T01] half a li");
    read_until("half a li");
    send("ne\n" +
         Line("01:00:02", "vondral: sent command \"RCMD SAV OBJ(('\"/" + std::string(99, 'w') + "\"'))\"", "01"));
    read_until("T01 saving /w");
    ::close(input[1]);
    read_until("vondral-report: unfinished");
    ::close(terminal);
    ::waitpid(process, nullptr, 0);
    EXPECT_TRUE(Holds(seen, "\r\x1b[K[01:00:01] [T01] half a line\r\n")) << seen;
    std::smatch line;
    ASSERT_TRUE(std::regex_search(seen, line, std::regex("\r(1 object [^\r\x1b]*saving /w*)\x1b\\[K")));
    EXPECT_EQ(line[1].length(), 39);
    EXPECT_TRUE(Holds(seen, "\r\x1b[Kvondral-report: unfinished: 1 object saved in")) << seen;
    EXPECT_EQ(seen.find("4711"), seen.rfind("4711")); // only where it passed through
}

} // namespace
