// vondral-report on logs of the program itself, and on bytes that no run would write.

#include <regex>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "display.h"
#include "html.h"
#include "log_line.h"
#include "past_run.h"
#include "progress.h"
#include "prometheus.h"
#include "test_support.h"
#include "verdict.h"

namespace report {
namespace {

namespace fs = std::filesystem;
using testing::AllOf, testing::Each, testing::ElementsAre, testing::HasSubstr, testing::Ne, testing::Not,
    testing::SizeIs;

// A server, and the logs of runs against it: both streams in one.
struct Night : TestSite {
    int status = -1; // of the last run

    Night() {
        WriteObjects(root.path);
        WriteFile(root / "home/<b>&\x1b[31m\xE9", "r");
        options.password = "pass\"phrase<p4711>";
        program.merged = true;
    }
    // Runs the program with these arguments, separated by blanks, and -b or -r with the archive.
    std::string Log(const std::string& arguments) {
        std::istringstream words(arguments + " " + archive.string());
        const auto outcome = Run({std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()});
        status = outcome.status;
        return outcome.out;
    }
};

constexpr char AllOutputs[] = "--html page --json records --prometheus gauges";

// The tool under test in a directory of its own, with its outputs there: out, err, and what the arguments name. Its
// log, input, was last changed ten seconds after a midnight.
struct Tool {
    TempDir work;

    // `feed` is the command that the tool reads from.
    int Run(const std::string& log, const std::string& arguments, const std::string& feed = "cat input") {
        WriteFile(work / "input", log);
        Program shell;
        shell.executable = "/bin/bash";
        shell.environment["TZ"] = "UTC";
        shell.arguments = {"-c", "umask 026; cd '" + work.path.string() + "'; touch -d @1772323210 input; " + feed +
                                     " | 2>err '" + REPORT_UNDER_TEST + "' " + arguments + " >out"};
        return shell.Run().status;
    }
    std::string Read(const std::string& name) const { return ReadFile(work / name); }
};

std::vector<std::string> Lines(const std::string& text, const std::string& pattern) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        if (std::regex_search(line, std::regex(pattern)))
            lines.push_back(line);
    return lines;
}

LoggedRun ParseRun(const std::string& log) {
    LoggedRun run;
    for (const std::string& line : Lines(log, ""))
        ProcessLogLine(run, line);
    FinishRun(run);
    return run;
}

std::string Line(const char* time, const std::string& text, const char* thread = "00") {
    return "[" + std::string(time) + "] [T" + thread + "] " + text + "\n";
}

std::string Success(const std::string& name, const std::string& result = "Success") {
    return Line("23:59:50", "Backup " + result + ": " + name, "01");
}

std::string Failure(const std::string& name) {
    return Success(name, "Failure");
}

// A backup that reached its end.
std::string Ended(const std::string& saves) {
    return Line("23:59:40", "Building Object Lists") + saves + Line("23:59:50", "** Backup Complete") +
           Line("23:59:50", "** Total Run Time: 10.000 seconds");
}

// Each status as the program exits and as its log has it, at every verbosity. The log passes through unchanged; the
// passphrase gets nowhere else.
TEST(Report, StatusIsThatOfTheProgram) {
    const std::set<std::string> one{"/home/note"}, two{"/home/note", "/QSYS.LIB/TOOLS.LIB/RUN.PGM"};
    using Row = std::tuple<std::set<std::string>, std::string, std::string, std::uint64_t, std::uint64_t>;
    for (const auto& [locked, option, expected, failed, partial] : {Row{{}, "-x yes", "complete", 0, 0},
                                                                    {one, "-x no", "failures", 1, 0},
                                                                    {two, "-p yes", "failures", 2, 0},
                                                                    {two, "-p no", "complete", 0, 2},
                                                                    {{}, "-i /nowhere", "failed", 0, 0}})
        for (const std::string verbosity : {"-v0 ", "-v2 ", "-v3 ", "-v5 "}) {
            Night night;
            night.options.locked = locked;
            const std::string log = night.Log(verbosity + option + " -b");
            const LoggedRun run = ParseRun(log);
            EXPECT_EQ(StatusName(StatusOf(run)), expected) << log;
            EXPECT_EQ(ExpectedExitStatus(run), night.status) << log;
            EXPECT_EQ(run.Count(Outcome::Failed), failed) << log;
            EXPECT_EQ(run.Count(Outcome::SavedInPart), verbosity == "-v0 " ? 0 : partial) << log;
            for (const Result& result : run.missing)
                EXPECT_THAT(result.reason, HasSubstr(failed > 0 ? " command failed; 550 " : ""));
            Tool tool;
            EXPECT_EQ(tool.Run(log, AllOutputs), 0);
            EXPECT_EQ(tool.Read("out"), log);
            for (const char* const file : {"page", "records", "gauges", "err"})
                EXPECT_THAT(tool.Read(file), AllOf(Ne(""), Not(HasSubstr("p4711")))) << file;
            EXPECT_THAT(tool.Read("gauges"), HasSubstr("{status=\"" + expected + "\"} 1\n"));
            EXPECT_THAT(Lines(tool.Read("records"), "outcome"), SizeIs(run.Results()));
        }
}

TEST(Report, LogsOfTheProgramWholeAndCut) {
    Night night;
    const std::string backup = night.Log("-v2 -b");
    const LoggedRun whole = ParseRun(backup);
    const auto entries = ReadArchiveFile(night.archive).value();
    double bytes = 0;
    for (const ArchiveEntry& entry : entries)
        bytes += static_cast<double>(entry.data.size());
    EXPECT_TRUE(whole.bytes == bytes && whole.Results() == entries.size() && Omissions(whole, {}).empty());
    EXPECT_EQ(whole.not_understood, 0U);
    for (const Result& result : whole.longest)
        EXPECT_TRUE(result.save_seconds && result.transfer_seconds) << result.name;
    for (std::size_t length = 0; length < backup.rfind("** Total Run Time: ") + 19; length += 7) {
        const LoggedRun run = ParseRun(backup.substr(0, length));
        EXPECT_TRUE(StatusOf(run) == Status::Unfinished && !ExpectedExitStatus(run)) << length;
    }
    const std::string exclude = night.File("exclude", "/Security Data\n/System Configuration\n");
    for (const auto& [verbosity, unexplained] : {std::pair("-v0 -e ", 2U), {"-v2 -e ", 0U}}) {
        const LoggedRun run = ParseRun(night.Log(verbosity + exclude + " -r"));
        EXPECT_TRUE(StatusOf(run) == Status::Complete && run.not_understood == 0);
        EXPECT_TRUE(run.Results() == entries.size() && run.Count(Outcome::NotRestored) == 2);
        EXPECT_EQ(run.unexplained, unexplained);
    }
    night.options.locked = {"/home/note"};
    const std::string restore = night.Log("-r");
    const LoggedRun partial = ParseRun(restore);
    EXPECT_TRUE(partial.Missing() == 1 && partial.missing.at(0).name == "/home");
    // Two runs in one log. The first may be cut, and the second's first line follow on the same line.
    const LoggedRun last = ParseRun(night.Log("-b") + backup);
    EXPECT_TRUE(last.earlier_runs == 1 && StatusOf(last) == Status::Complete && last.Missing() == 0);
    for (const std::size_t length : {backup.find("Backup Success: ") + 20, backup.rfind("** Total Run Time: ") + 5}) {
        EXPECT_EQ(ParseRun(backup.substr(0, length) + backup).Results(), whole.Results()) << length;
        EXPECT_EQ(ParseRun(backup.substr(0, length) + restore).Results() + 1, partial.Results()) << length;
    }
}

constexpr char BackupLog[] = R"--([22:00:00] [T00] Building Object Lists
[22:00:04] [T01] Backup Success: /earlier
[22:00:05] [T00] ** Total Run Time: 5.000 seconds
[23:59:50] [T00] Building Object Lists
[23:59:51] [T00] Object not found: /nowhere
[23:59:58] [T01] Backup Success: /home
[23:59:58] [T01] Size: 2.892 MB
[23:59:58] [T01] Save:   4.100 s 705.366 KB/s
[23:59:58] [T01] Wait:   0.200 s
[23:59:58] [T01] Xfer:   1.250 s 2.314 MB/s
[00:00:01] [T02] vondral: sent command "RCMD SAVDLO DLO(*ALL)"
[00:00:03] [T02] vondral[backup.cpp,1]: SAV command failed
  550-CPF3814 in use
[00:00:03] [T02] Backup Failure: /QDLS
[00:00:04] [T01] /QSYS.LIB/A.LIB: 550 No objects saved.
[00:00:04] [T01] Block returned no data
[00:00:04] [T01] Backup Success: /QSYS.LIB/A.LIB
[00:00:05] [T01] /tmp: 3 objects not saved
[00:00:05] [T01] vondral[socket.cpp,1]: poll(): timedout after 60.00s (60.00s)
[00:00:05] [T01] vondral[socket.cpp,1]: read(10.0.0.1:21): Connection reset by peer
[00:00:05] [T02] vondral[socket.cpp,1]: connect(, 10.0.0.1:21): Connection refused
[00:00:05] [T02] vondral[socket.cpp,1]: can't connect data port
[00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint[00:00:05] [T02] vondral: sent command "PASS p4711"
[00:00:05] [T02] vondral: sent command "PASS p4711"
[00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint
[00:00:06] [T02] Backup Failure: /QSYS.LIB/B.LIB
[00:00:06] [T01] Backup Success: /tmp
[00:00:06] [T01] Save:  61.000 s
[00:00:06] [T01] ** Thread 1 Complete
[00:00:07] [T00] ** Backup Complete
[00:00:07] [T00] ** Backed up 27.844 kB in 4.000 s
[00:00:07] [T00] ** Total List Data: 2.000 kB
[00:00:07] [T00] ** Total Objects Attempted: 17
[00:00:07] [T00] ** Total Objects Failed   : 1
[00:00:10] [T00] ** Total Run Time: 20.026 seconds
)--";

// Every record and gauge of one log, compared with that of an earlier run. The date of the first run in the log is not
// known.
TEST(Report, AllOutputsOfABackup) {
    Tool tool;
    WriteFile(tool.work / "old", Ended(Failure("/of an earlier run")) +
                                     Ended(Success("/gone") + Success("/QDLS") + Failure("/home") + Failure("/tmp")));
    EXPECT_EQ(
        tool.Run(BackupLog,
                 std::string("--against old --server '<as400>' --night N1 --archive a/n1.ctar input ") + AllOutputs),
        0);
    EXPECT_EQ(tool.Read("out"), BackupLog);
    EXPECT_EQ(tool.Read("records"),
              R"({"type":"save","run":0,"name":"/earlier","outcome":"saved","thread":1,"seconds":0}
{"type":"missing","run":1,"name":"/nowhere","outcome":"not found","thread":0,"start_time":1772323191,"end_time":1772323191,"seconds":0,"reason":"no such path on the server"}
{"type":"save","run":1,"name":"/home","outcome":"saved","thread":1,"start_time":1772323192.45,"end_time":1772323198,"seconds":5.55,"bytes":2892000,"save_seconds":4.1,"wait_seconds":0.2,"transfer_seconds":1.25}
{"type":"missing","run":1,"name":"/QSYS.LIB/A.LIB","outcome":"no data","thread":1,"start_time":1772323198,"end_time":1772323204,"seconds":6,"reason":"the server returned no data; 550 No objects saved."}
{"type":"missing","run":1,"name":"/QDLS","outcome":"failed","thread":2,"start_time":1772323201,"end_time":1772323203,"seconds":2,"reason":"SAV command failed; 550-CPF3814 in use"}
{"type":"missing","run":1,"name":"/tmp","outcome":"saved in part","thread":1,"start_time":1772323204,"end_time":1772323265,"seconds":61,"save_seconds":61,"reason":"3 objects not saved"}
{"type":"missing","run":1,"name":"/QSYS.LIB/B.LIB","outcome":"failed","thread":2,"start_time":1772323203,"end_time":1772323206,"seconds":3,"reason":"data connection refused at 00:00:05; open the server's passive ports in the firewall, then run again"}
{"type":"connection","thread":2,"time":1772323205,"during":"/QSYS.LIB/B.LIB","recovered":false,"text":"Data connection refused at 00:00:05 during /QSYS.LIB/B.LIB; open the server's passive ports in the firewall, then run again","lines":["[00:00:05] [T02] vondral[socket.cpp,1]: connect(, 10.0.0.1:21): Connection refused","[00:00:05] [T02] vondral[socket.cpp,1]: can't connect data port","[00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint[00:00:05] [T02] vondral: sent command \"PASS","[00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint"]}
{"type":"connection","thread":1,"time":1772323205,"during":"/tmp","recovered":true,"text":"Connection lost at 00:00:05 during /tmp; recovered by itself","lines":["[00:00:05] [T01] vondral[socket.cpp,1]: read(10.0.0.1:21): Connection reset by peer"]}
{"type":"change","change":"newly missing","name":"/nowhere"}
{"type":"change","change":"newly missing","name":"/QSYS.LIB/A.LIB"}
{"type":"change","change":"newly missing","name":"/QDLS"}
{"type":"change","change":"newly missing","name":"/QSYS.LIB/B.LIB"}
{"type":"change","change":"no longer missing","name":"/home"}
{"type":"change","change":"still missing","name":"/tmp"}
{"type":"change","change":"no longer named","name":"/gone"}
{"type":"total","name":"list_bytes","value":2048}
{"type":"total","name":"bytes","value":28512}
{"type":"total","name":"files_attempted","value":17}
{"type":"total","name":"files_failed","value":1}
{"type":"total","name":"run_seconds","value":20.026}
{"type":"run","run":1,"mode":"backup","status":"failures","exit_status":1,"start_time":1772323190,"end_time":1772323210,"saves":{"saved":1,"saved in part":1,"no data":1,"failed":2,"not found":1},"bytes":2892000,"lines":32,"lines_not_understood":0,"omissions":["How many files are missing: at least 2. The printed count can be too small, because a directory that fails replaces it.","Earlier runs in the same log: 1. This is the last one."],"server":"<as400>","archive":"a/n1.ctar","night":"N1"}
)");
    EXPECT_EQ(std::regex_replace(tool.Read("gauges"), std::regex("#[^\n]*\n|[^\n]* 0\n|vondral_run_"), ""),
              "status{status=\"failures\"} 1\nend_time_seconds 1772323210\nexit_status 1\nfiles_attempted 17\n"
              "files_failed 1\nsaves 6\nsaves_failed 2\nsaves_missing 5\nbytes 28512\nduration_seconds 20.026\n");
    EXPECT_EQ(std::regex_replace(tool.Read("err"), std::regex("vondral-report: "), ""),
              "failures: 6 saves (1 saved, 2 failed, 1 saved in part, 1 no data, 1 not found), 28.512 KB in 20.026 s\n"
              "connection: Data connection refused at 00:00:05 during /QSYS.LIB/B.LIB; open the server's passive ports "
              "in the firewall, then run again\nnewly missing: /nowhere\nnewly missing: /QSYS.LIB/A.LIB\n"
              "newly missing: /QDLS\nnewly missing: /QSYS.LIB/B.LIB\n"
              "no longer named: /gone\nno longer missing: /home\n");
    for (const char* const file : {"page", "records", "gauges", "err"})
        EXPECT_THAT(tool.Read(file), Not(HasSubstr("p4711"))) << file;
    std::string page = std::regex_replace(tool.Read("page"), std::regex("\n"), " ");
    page = std::regex_replace(page.substr(page.find("<h1>")), std::regex("</section>"), "\n");
    EXPECT_EQ(
        std::regex_replace(page, std::regex("(<[^>]*>)+"), "|"),
        R"(|Backup of &lt;as400&gt; |failures|Night |N1|Archive |a/n1.ctar|The log ends on Sunday,  1 March 2026, 00:00:10. Exit status according to the log: 1.|6|saves|1|saved|2|failed|1|saved in part|1|no data|1|not found|28.512 KB|backed up|20.026 s|run time|Connection |2|Data connection refused at 00:00:05 during /QSYS.LIB/B.LIB; open the server&#39;s passive ports in the firewall, then run again|[00:00:05] [T02] vondral[socket.cpp,1]: connect(, 10.0.0.1:21): Connection refused [00:00:05] [T02] vondral[socket.cpp,1]: can&#39;t connect data port [00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint[00:00:05] [T02] vondral: sent command &quot;PASS [00:00:05] [T02] vondral[ftp.cpp,1]: recovering checkpoint |Connection lost at 00:00:05 during /tmp; recovered by itself|[00:00:05] [T01] vondral[socket.cpp,1]: read(10.0.0.1:21): Connection reset by peer |If the connection was lost while an object was fetched, a restore from this archive stops at that object and does not reach what was saved after it.|
|Missing, in whole or in part |5|Name|Outcome|Time|Reason|/nowhere|not found|23:59:51|no such path on the server|/QSYS.LIB/A.LIB|no data|00:00:04|the server returned no data; 550 No objects saved.|/QDLS|failed|00:00:03|SAV command failed; 550-CPF3814 in use|/tmp|saved in part|00:01:05|3 objects not saved|/QSYS.LIB/B.LIB|failed|00:00:06|data connection refused at 00:00:05; open the server&#39;s passive ports in the firewall, then run again|
|Changes since |old|Newly missing |4|/nowhere|/QSYS.LIB/A.LIB|/QDLS|/QSYS.LIB/B.LIB|No longer named in the log |1|/gone|Still missing |1|/tmp|No longer missing |1|/home|
|Workers|server saving|waiting for the archive|transfer|missing, in whole or in part|23:59:50|00:00:00|00:00:10|00:00:20|00:00:30|00:00:40|00:00:50|00:01:00|T00|T01|T02|/home saved, 2.892 MB save 4.100 s wait 0.200 s transfer 1.250 s|/nowhere not found|/QSYS.LIB/A.LIB no data|/QDLS failed|/tmp saved in part save 1:01|/QSYS.LIB/B.LIB failed|
|Largest saves|Name|Size (MB)|Save (s)|Wait (s)|Transfer (s)|All (s)|/home|2.892|4.100|0.200|1.250|5.550|
|Slowest saves|Name|Size (MB)|Save (s)|Wait (s)|Transfer (s)|All (s)|/tmp|61.000|61.000|/QSYS.LIB/A.LIB|6.000|/home|2.892|4.100|0.200|1.250|5.550|/QSYS.LIB/B.LIB|3.000|/QDLS|2.000|/nowhere|0.000|
|Totals in the log|They count every file of a saved directory.|Files and listings|Number|files attempted|17|files failed, as printed|1|Bytes|KB|of the archive|28.512|of listings|2.048|Time|s|the run|20.026|
|Not known, or not shown|How many files are missing: at least 2. The printed count can be too small, because a directory that fails replaces it.|Earlier runs in the same log: 1. This is the last one.|0 of 32 lines were not understood.|
| )");
}

// What its caller knows counts more than the log.
TEST(Report, KnownLossAndJudgement) {
    const LoggedRun run = ParseRun(Ended(Success("/a") + Line("23:59:50", "** Total Objects Failed   : 1")));
    const LoggedRun good = ParseRun(Ended(Success("/a")));
    const TrueLoss none{164, 164, 2.5e6}, some{164, 72, 2.5e6};
    using Row = std::tuple<const LoggedRun&, std::optional<TrueLoss>, std::optional<Judgement>, bool, std::string>;
    for (const auto& [log, loss, judgement, is_good, summary] :
         {Row{good, {}, {}, true, "complete: 1 save in 10 s"},
          {good, none, {}, true, "complete: 1 save, none of 164 files missing, 2.500 MB in a sound archive in 10 s"},
          {good,
           some,
           {},
           false,
           "complete: 1 save, 92 of 164 files missing (56.1 %), 2.500 MB in a sound archive in 10 s"},
          {good, {}, Judgement{"suspicious", false, false, {}}, false, "suspicious: 1 save in 10 s"},
          {run, none, Judgement{"good with gaps", true, true, {}}, true,
           "good with gaps: 1 save, none of 164 files missing, 2.500 MB in a sound archive in 10 s"}}) {
        const RunContext context{"as400", "n1/archive.ctar", "n1", loss, judgement};
        TempDir work;
        EXPECT_EQ(Summary(log, context), summary);
        EXPECT_TRUE(WritePrometheus(work / "gauges", "", log, context, 1234));
        const std::string gauges = ReadFile(work / "gauges"), page = HtmlPage(log, context, 1234, nullptr, nullptr);
        EXPECT_EQ(gauges.find("\nvondral_last_good_run_end_time_seconds 1234\n") != gauges.npos, is_good) << summary;
        EXPECT_EQ(gauges.find("\nvondral_run_files_missing 92\n") != gauges.npos, loss && loss->Missing() > 0);
        EXPECT_EQ(page.find(">92 (56.1 %)</b>files missing<") != page.npos, loss && loss->Missing() > 0) << page;
        EXPECT_EQ(page.find("pill terminated\">good with gaps") != page.npos, judgement && judgement->has_gaps);
        EXPECT_THAT(
            page, HasSubstr("<title>Backup of as400: " + summary.substr(0, summary.find(':')) + ", n1, archive.ctar<"));
        EXPECT_EQ(page.find("files failed, at least") == page.npos, loss.has_value() || &log == &good);
    }
}

// What some output says about made-up logs; after "!", what none says.
TEST(Report, Outputs) {
    using Row = std::pair<std::string, std::vector<std::string>>;
    const std::string good = Ended(Success("/a")), exit_status = "Exit status according to the log: ";
    const std::string restore = Line("01:00:00", "Archive  : /a") +
                                Line("01:00:10", "vondral[a.cpp,1]: h:21: control connection closed") +
                                Line("01:00:30", "Restore Success: /a") + Line("01:00:30", "Archive  : /b");
    const std::string huge = Success("/a") + "[23:59:51] [T01] Size: 999999999 GB\n" +
                             "[23:59:51] [T01] Save: 999999999999999999 s\n" + Success("/b");
    // Neither standard error nor what -v1 adds: what may be missing from the log is not shown as 0.
    const std::string plain = Ended(Success("/a") + Line("23:59:50", "** Total Objects Failed   : 1"));
    for (const auto& [log, parts] :
         {Row{good,
              {"<title>Backup: complete<", "pill complete\">complete<", "!id=\"missing\"", "!missing, in whole or",
               ": 1 save in 10 s\n"}},
          {Line("01:00:00", "vondral[a.cpp,1]: Backup Terminated Cleanly"),
           {exit_status + "143.", ": terminated: 0 saves", "!Messages about the run"}},
          {good + Line("01:00:00", "vondral[a.cpp,1]: login failed"),
           {exit_status + "255.", "<li>login failed</li>", ": failed (login failed): 0 saves in 0 s\n"}},
          {Ended(Line("23:59:50", "** Parsing Errors : 1") + Line("23:59:50", "** No objects attempted")),
           {exit_status + "2."}},
          {Line("01:00:00", "vondral[a.cpp,1]: list failed") + Line("01:00:01", "** Total Run Time: 1.000 seconds"),
           {": failed (list failed): "}},
          {Line("01:00:00", "vondral[a.cpp,1]: TIME command failed") +
               Line("01:00:01", "** Total Run Time: 1.000 seconds"),
           {": unknown: ", "<li>What the run did: there is neither a backup nor a restore in the log."}},
          {"", {"!_time\":"}},
          {Success("/a") + Line("23:59:58", "** Backup Complete"), {">23:59:51</text>", "!>+1 s<"}},
          {BackupLog,
           {"<rect class=\"wait\" x=\"139.8\" y=\"41.0\" width=\"2.6\" height=\"20\"/>",
            "\"outcome failed\" data-label=\"\">failed<"}},
          {restore,
           {"<h1>Restore <", ">unfinished<", "!" + exit_status, "Why 1 entry was not restored",
            "Connection lost at 01:00:10 during /a; recovered by itself", "{\"type\":\"entry\",", "\"seconds\":30",
            "\"entries\":{\"restored\":1,", "\nvondral_run_entries 2\n"}},
          {Line("01:00:00", "Building Object Lists") +
               Line("01:00:10", "vondral[a.cpp,1]: h:21: control connection closed"),
           {"Connection lost at 01:00:10 during the listing"}},
          {restore + Line("01:00:31", "vondral[a.cpp,1]: failed to restore object at offset 0x0"),
           {"\"failed\":1,\"not found\":0"}},
          {huge,
           {"\"bytes\":999999999000000000,", "!\":-", "!>-", ">backed up so far<",
            ": unfinished: 2 saves, 999999999.000 GB in "}},
          {plain,
           {"!_saves_failed", "!_saves_missing", "!\"failed\":", "!\"saved in part\":", ", at least 1 file failed in",
            "</b>files failed, at least<", "<li>What failed and why: ", "<li>What was saved in part (-p no): ",
            "!" + exit_status, "<li>Sizes and times of the saves: ", "!server saving", "!waiting for the archive"}},
          {plain + Failure("/b"), {"_saves_failed 1\n", "!_saves_missing"}}}) {
        Tool tool;
        EXPECT_EQ(tool.Run(log, AllOutputs), 0);
        const std::string all = tool.Read("page") + tool.Read("records") + tool.Read("gauges") + tool.Read("err");
        for (const std::string& part : parts)
            EXPECT_EQ(all.find(part.substr(part[0] == '!')) == all.npos, part[0] == '!') << part;
    }
}

TEST(Report, LinesOfEveryKind) {
    using Row = std::tuple<std::string, LineKind, std::string>;
    for (const auto& [text, kind, expected] :
         {Row{"Backup Success: vondral: sent command \"PASS x\"", LineKind::Saved, "vondral: sent command \"PASS"},
          {"vondral[backup.cpp:250] : Error reading", LineKind::Message, "Error reading"},
          {"vondral: sent command \"PASS secret\"", LineKind::Command, ""},
          {"vondral: sent command \"RCMD SAVLIB LIB(PAY) DEV(*SAVF)\"", LineKind::Command, "PAY"},
          {"vondral: sent command \"RCMD SAV DEV('x') OBJ(('\"/home/a b\"')) X\"", LineKind::Command, "/home/a b"},
          {"vondral: sent command \"LIST /home\"", LineKind::Command, "/home"},
          {"93.509 MB/s", LineKind::Ignored, ""}}) {
        const std::string tagged = "[23:59:58] [T03] " + text;
        const LogLine line = ParseLogLine(tagged);
        EXPECT_TRUE(line.kind == kind && line.text == expected && line.time == 86398 && line.thread == 3) << text;
    }
    for (const std::string text : {"", "Size: -1 B", "Size: 999999999999999999 GB", "Save: nan s", "Save: 1e999 s",
                                   "93.509 lumps B/s", "/home: 5 others", "220-QTCP at HOST: ready"})
        EXPECT_EQ(ParseLogLine("[00:00:00] [T00] " + text).kind, LineKind::Unknown) << text;
    for (const char* const untagged :
         {"", "[", "[23:59:58] [T03]", "[2:59:58] [T03] x", "[24:00:00] [T03] x", "[23:60:00] [T03] x",
          "[23:59:61] [T03] x", "[23:59:58] [T9999999] x", "[23:59:58] [T0x] x", "  550 no", "\xFF\xFE"})
        EXPECT_EQ(ParseLogLine(untagged).kind, LineKind::Reply) << untagged;
}

TEST(Report, TimeOfTheLog) {
    std::string log = Line("23:59:50", "Building Object Lists") + Line("00:00:10", "Building Block Lists");
    for (const auto& [lines, elapsed] : std::vector<std::pair<std::string, double>>{
             {Line("23:59:59", "late by a moment", "02"), 20},
             {Line("02:59:59", "x") + Line("02:00:00", "a clock put back"), 10809},
             {Line("01:00:00", "x") + Line("14:00:00", "x") + Line("01:59:59", "x"), 86400 + 7209}})
        EXPECT_EQ(ParseRun(log += lines).clock.elapsed, elapsed) << lines;
    std::tm noon_here{0, 0, 12, 1, 0, 126, 0, 0, -1, 0, nullptr};
    const std::time_t noon = std::mktime(&noon_here);
    EXPECT_EQ((LogClock{0, 12 * 3600 + 60, 0, 0}).LastMoment(noon), noon + 60); // clocks may differ by a minute
    EXPECT_EQ((LogClock{0, 12 * 3600 + 61, 0, 0}).LastMoment(noon), noon + 61 - 86400);
}

TEST(Report, HostileBytesStayText) {
    const std::string name = "/home/<script>\"'&\x1b]0;x\x07\xFF\xC0\xAF\xE2\x80\xAE\r";
    std::string log = Success(name) + Failure(name) + Success("\"} 1\nvondral_last_good_run_end_time_seconds 9e9") +
                      std::string(300000, 'x') + "\n" + std::string("\0\n\r\n[\xFF", 6);
    for (int thread = 0; thread < 2000; ++thread)
        log += Line("23:59:52", "x", std::to_string(1000 + thread).c_str());
    log += "[23:59:52] [T01] Backup Success: /unfinished";
    Tool tool;
    EXPECT_EQ(tool.Run(log, AllOutputs), 0);
    EXPECT_EQ(tool.Read("out"), log);
    EXPECT_THAT(tool.Read("page"), HasSubstr("/home/&lt;script&gt;&quot;&#39;&amp;\uFFFD]0;x\uFFFD"));
    EXPECT_THAT(tool.Read("page"), Not(HasSubstr("<script")));
    EXPECT_THAT(tool.Read("records"), HasSubstr("\"/home/<script>\\\"'&\\u001b]0;x\\u0007\\ufffd"));
    for (const char* const file : {"page", "records", "gauges", "err"})
        EXPECT_FALSE(std::regex_search(tool.Read(file), std::regex("[\\x01-\\x09\\x0b-\\x1f]"))) << file;
    EXPECT_THAT(tool.Read("gauges"), Not(HasSubstr("vondral_last_good_run")));
    EXPECT_THAT(Lines(tool.Read("records"), "/unfinished"), SizeIs(1));
    const char bytes[] =
        "a\x1b[K\xC3\xA9\xFF \xE2\x80\xAE\xED\xA0\x80\xF5 \xF0\x9F\x98\x80. \xF0\x8F\xBF\xBF\xF4\x90 \xF0\x9F\x98";
    const std::string visible = "a?[K\u00E9? ????? \U0001F600. ?????? ???"; // where ? is U+FFFD
    EXPECT_EQ(VisibleText(bytes), std::regex_replace(visible, std::regex("\\?"), "\uFFFD"));
    EXPECT_EQ(TerminalText(bytes), "a?[K?? ????? ?. ?????? ???");
}

TEST(Report, GaugesKeepTheLastGoodRunOfTheSameLabels) {
    const std::string good = Ended(Success("/a")), bad = Ended(Failure("/a"));
    const std::string name = "vondral_last_good_run_end_time_seconds", labels = "{server=\"x\",a_1=\"\\\"=\\\\\"";
    for (const auto& [series, given, every] :
         {std::tuple(name + ' ', "", std::string()),
          {name + labels + "} ", " --label server=x --label 'a_1=\"=\\'", labels}}) {
        Tool tool;
        const std::string arguments = std::string("input --fail ") + AllOutputs + given;
        WriteFile(tool.work / "linked",
                  series + "1234\njunk\n" + series + "x\n" + series + "0\n" + name + "{server=\"y\"} 5\n");
        fs::create_symlink("linked", tool.work / "gauges");
        fs::create_symlink("not there", tool.work / "page");
        const auto last_good = [&] { return Lines(tool.Read("gauges"), "^" + name); };
        EXPECT_EQ(tool.Run(bad, arguments), 3);
        EXPECT_THAT(last_good(), ElementsAre(series + "1234"));
        for (const auto& [log, status] : {std::pair(good, 0), {bad, 3}, {Night().Log("-t -b"), 3}}) {
            EXPECT_EQ(tool.Run(log, arguments), status);
            EXPECT_THAT(last_good(), ElementsAre(series + "1772323190"));
        }
        EXPECT_THAT(tool.Read("gauges"), HasSubstr("status=\"unknown\"} 1\n"));
        EXPECT_THAT(Lines(tool.Read("gauges"), "^vondral"), Each(HasSubstr(every)));
        for (const char* const file : {"linked", "records", "not there"}) // as the umask wants it
            EXPECT_EQ(fs::status(tool.work / file).permissions(), fs::perms(0640)) << file;
        EXPECT_TRUE(fs::is_symlink(tool.work / "gauges") && fs::is_symlink(tool.work / "page"));
        EXPECT_EQ(std::distance(fs::directory_iterator(tool.work.path), {}), 8); // no temporary file is left
    }
    for (const char* const label :
         {"status=x", "__x=1", "1x=1", "=1", "x", "\"x y=1\"", "$'x=1\\n'", "$'x=\\xff'", "x=1 --label x=2"})
        EXPECT_EQ(Tool().Run(good, std::string("--label ") + label), 2) << label;
}

// What cannot be read or written is reported, and the rest is done.
TEST(Report, Trouble) {
    const std::string log = Success("/a") + Success("/b");
    const std::string no_file = ": No such file or directory\n",
                      refused = ": refusing to overwrite a log or an archive\n";
    const std::string no_space = "full: No space left on device\n", no_reader = "pipe: No such device or address\n";
    using Row = std::tuple<std::string, int, std::string>;
    for (const auto& [arguments, status, error] :
         {Row{"--against none/x", 1, "none/x" + no_file},
          {"--json none/x --html y/y --prometheus z/z", 1, "none/x" + no_file + "y/y" + no_file + "z/z" + no_file},
          {"--against /dev/null", 1, "/dev/null: not a file that can be read twice\n"},
          {"--json full --html full --prometheus full", 1, no_space + no_space + no_space},
          {"--json pipe --html pipe --prometheus pipe", 1, no_reader + no_reader + no_reader},
          {"none", 1, "none" + no_file},
          {"--every 0", 2, "--every: must be from one second to a week (see --help)\n"},
          {"--every 604801", 2, "--every: must be from one second to a week (see --help)\n"},
          {"input --html input", 2, "input" + refused},
          {"input --prometheus log", 2, "log" + refused},
          {"--json old --against old", 2, "old" + refused},
          {"input --no-log --json - 1>>input #", 2, "standard output" + refused},
          {"--no-log --every 604800", 0, ""}}) {
        Tool tool;
        const char feed[] = "cp input old; ln -s input log; ln -s /dev/full full; mkfifo pipe; cat input";
        EXPECT_EQ(tool.Run(log, "--quiet " + arguments, feed), status);
        EXPECT_EQ(std::regex_replace(tool.Read("err"), std::regex("vondral-report: "), ""), error);
        EXPECT_EQ(tool.Read("input") + tool.Read("old"), log + log) << arguments;
        EXPECT_EQ(tool.Read("out"), status != 1 || arguments == "none" ? "" : log) << arguments;
    }
}

TEST(Report, OutputsThatAreStandardOutput) {
    Tool tool;
    const std::string log = Success("/a");
    fs::create_symlink("/proc/self/fd/1", tool.work / "stdout"); // root could replace /dev/stdout
    for (const char* const arguments : {"--prometheus stdout", "--prometheus stdout | cat"}) {
        EXPECT_EQ(tool.Run(log, arguments), 0);
        EXPECT_TRUE(fs::is_symlink(tool.work / "stdout"));
        EXPECT_THAT(tool.Read("out"), testing::StartsWith(log + "# HELP vondral_run_status")) << arguments;
    }
    EXPECT_EQ(tool.Run(log, "--json records --html none/x 2>&-"), 1); // the error must not go to the records
    EXPECT_THAT(tool.Read("records"), Not(HasSubstr("vondral-report")));
    // A signal that ends the run ends the tool only when the log ends.
    const char signals[] =
        "{ cat input; until [ -s out ]; do sleep 0.01; done; for child in $(</proc/$$/task/$$/children);"
        "do [ $child = $BASHPID ] || kill -INT $child; done; cat input; }";
    EXPECT_EQ(tool.Run(log, "", signals), 0);
    EXPECT_EQ(tool.Read("out"), log + log);
    // A reader that goes away ends neither the tool nor the run: a pipe cannot hold this log.
    std::string many;
    while (many.size() < 1 << 20)
        many += Success("/" + std::to_string(many.size()));
    for (const char* const arguments : {"--html page | true", "--json - --html page | true"}) {
        EXPECT_EQ(tool.Run(many, arguments), 0);
        EXPECT_EQ(Lines(tool.Read("page"), "<b>[0-9]{5}</b>saves").size(), 1) << arguments;
        fs::remove(tool.work / "page");
    }
}

TEST(Report, PlainLinesOfProgressWhileTheLogIsSilent) {
    Tool tool;
    const std::string feed = "{ cat input; for i in {1..300}; do grep -qs '2 saves' err && break; sleep 0.1; done; }";
    WriteFile(tool.work / "old", Success("/a") + Success("/b"));
    EXPECT_EQ(tool.Run(Success("/a"), "--every 1s --against old --archive .", feed), 0); // which has no size to show
    EXPECT_THAT(tool.Read("err"),
                testing::ContainsRegex("^vondral-report: 50 % [|] 1 of about 2 saves [|] [0-9.]+ s [|] "));
    EXPECT_EQ(ProgressText(ParseRun(BackupLog), {2.5, {}, {}}),
              "6 saves | 2 failed | 2.892 MB | 1156.800 KB/s | 2 s | T02 after /QSYS.LIB/B.LIB");
    // The archive grows while its first object is fetched: against 10 MB in 1000 s, which this run exceeds in the end.
    const std::string listing = Line("01:00:00", "Building Object Lists");
    const std::string fetching = listing + Line("01:00:01", "Building Block Lists");
    for (const auto& [log, seconds, archive, text] :
         {std::tuple(listing, 10, 9e6, "0 % | about 16:30 left | 0 of about 4 saves | 10 s"),
          {fetching, 40, 4e5, "4 % | about 16:00 left | 0 of about 4 saves | 400.000 KB | 10.000 KB/s | 40 s"},
          {fetching, 100, 2.5e6, "25 % | about 10:37 left | 0 of about 4 saves | 2.500 MB | 25.000 KB/s | 1:40"},
          {fetching, 3600, 9.999e6, "99 % | 0 of about 4 saves | 9.999 MB | 2.777 KB/s | 1:00:00"},
          {fetching, 1000, 1e7, "0 of about 4 saves | 10.000 MB | 10.000 KB/s | 16:40"}})
        EXPECT_THAT(ProgressText(ParseRun(log), {1.0 * seconds, archive, {4, 1e7, 1000}}),
                    testing::StartsWith(text + std::string(" | T00")));
}

TEST(Report, LimitOfTheLargestSaves) {
    std::string log;
    for (int i = 0; i < 30; ++i)
        log += Success("/a") + FormatText("[23:59:50] [T01] Size: %d MB\n", i * 7 % 30 + 3);
    const LoggedRun run = ParseRun(log);
    EXPECT_EQ(ShowBytes(17), "17 B");
    EXPECT_EQ(run.largest.size(), LoggedRun::MostLargest);
    EXPECT_EQ(Ranked(run.largest, BytesOf).back().bytes, 13e6); // of 3 to 32 MB
}

// A fault that cost an object is told even where the faults that are kept had no consequences.
TEST(Report, LimitOfTheFaults) {
    const std::string lost =
        Line("23:59:50", "vondral[socket.cpp,1]: read(10.0.0.1:21): Connection reset by peer", "01");
    std::string log;
    for (int i = 0; i < 120; ++i)
        log += lost + Success("/a");
    for (int i = 0; i < 12; ++i)
        log += lost + Failure("/b");
    Tool tool;
    EXPECT_EQ(tool.Run(Ended(log), AllOutputs), 0);
    EXPECT_THAT(tool.Read("err"), HasSubstr("vondral-report: connection: 12, not listed\n"));
    EXPECT_THAT(tool.Read("page"), HasSubstr("a restore from this archive stops at that object"));
    EXPECT_THAT(tool.Read("records"), HasSubstr("Connection faults beyond the first 100."));
}

// On a terminal the line of progress never mixes with the log, and is gone at the end. It is 40 columns wide.
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
    const std::string sent = "[T01] vondral: sent command \"";
    for (const auto& [text, shown] :
         {std::pair("[01:00:00] " + sent + "PASS p4711\"\n" + Success("/first"), "1 save | "),
          {"[01:00:01] [T01] half a li", "half a li"},
          {"ne\n[01:00:02] " + sent + "RCMD SAV OBJ(('\"/" + std::string(99, 'w') + "\"'))\"\n", "T01 saving /w"},
          {"", "unfinished: 1 save in"}}) {
        if (text.empty())
            ::close(input[1]);
        EXPECT_TRUE(WriteAll(input[1], text.data(), text.size()));
        for (char byte; !seen.ends_with(shown) && ::read(terminal, &byte, 1) == 1;)
            seen += byte;
    }
    ::close(terminal);
    ::waitpid(process, nullptr, 0);
    EXPECT_THAT(seen, HasSubstr("\r\x1b[K[01:00:01] [T01] half a line\r\n"));
    EXPECT_TRUE(std::regex_search(seen, std::regex("\r(?=[^\r\x1b]{39}\x1b)1 save [^\r\x1b]*saving /w*\x1b\\[K")));
    EXPECT_THAT(seen, HasSubstr("\r\x1b[Kvondral-report: unfinished: 1 save in"));
    EXPECT_EQ(seen.find("p4711"), seen.rfind("p4711")); // only where it passed through
}

} // namespace
} // namespace report
