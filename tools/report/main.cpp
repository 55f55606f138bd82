// vondral-report: reads the log of a run, passes it on, shows the progress, and reports on the run at its end.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "display.h"
#include "html.h"
#include "json.h"
#include "line_splitter.h"
#include "log_reader.h"
#include "options.h"
#include "output.h"
#include "output_file.h"
#include "progress.h"
#include "prometheus.h"
#include "resources.h"
#include "support.h"
#include "verdict.h"

namespace report {

namespace {

void PrintError(const std::string& what, const char* reason) {
    std::fprintf(stderr, "vondral-report: %s: %s\n", TerminalText(what).c_str(), reason);
}

// When a run in the log started: the epoch time of its first line.
struct RunStart {
    std::uint64_t run;
    std::time_t moment;
};

// Everything between the options and the exit status.
struct Report {
    Options options;
    LoggedRun run;
    std::optional<RunStart> start;
    std::unique_ptr<PastRun> past;
    Changes changes;
    Descriptor json_file;
    Output log; // passed on
    Output records;
    std::unique_ptr<ProgressLine> line; // on a terminal
    LineSplitter splitter;
    bool live = false; // the log comes from a run under way, not from a file
    double started = SecondsNow();
    double last_shown = SecondsNow();
    bool trouble = false; // something could not be read or written

    // ESPIPE comes from ReadPastRun.
    void Fail(const std::string& what, int error) {
        trouble = true;
        PrintError(what, error == ESPIPE ? "not a file that can be read twice" : std::strerror(error));
    }
};

// If the report ended before the run, the run would die of a closed pipe. So while a run writes the log, signals that
// end a job, or come from the terminal, are left to the run.
class SignalsIgnored {
public:
    SignalsIgnored() {
        for (std::size_t i = 0; i < signals_.size(); ++i)
            before_[i] = std::signal(signals_[i], SIG_IGN);
    }
    ~SignalsIgnored() {
        for (std::size_t i = 0; i < signals_.size(); ++i)
            std::signal(signals_[i], before_[i]);
    }
    SignalsIgnored(const SignalsIgnored&) = delete;
    SignalsIgnored& operator=(const SignalsIgnored&) = delete;

private:
    static constexpr std::array signals_{SIGINT, SIGTERM, SIGHUP};
    std::array<void (*)(int), signals_.size()> before_{};
};

// Returns false, after saying why, when an output is a log to be read or the archive: it would be emptied, replaced, or
// grow for ever.
bool OutputsSpareInputs(const Options& options, const struct stat& log) {
    struct stat old_log {};
    ::stat(options.against.c_str(), &old_log);
    struct stat archive {};
    ::stat(options.archive.c_str(), &archive);
    const auto is_input = [&](const struct stat& output) {
        return S_ISREG(output.st_mode) &&
               (IsSameFile(output, log) || IsSameFile(output, old_log) || IsSameFile(output, archive));
    };
    const bool to_records = options.json == "-";
    std::string refused;
    struct stat status {};
    for (const std::string& path : {options.html, options.prometheus, to_records ? "" : options.json})
        if (::stat(path.c_str(), &status) == 0 && is_input(status))
            refused = path;
    if ((to_records || !options.no_log) && ::fstat(STDOUT_FILENO, &status) == 0 && is_input(status))
        refused = "standard output";
    if (!refused.empty())
        PrintError(refused, "refusing to overwrite a log or an archive");
    return refused.empty();
}

// The start of the last run in a regular file, read in advance: its records are written before its last line, whose
// time is that of the file's last change.
RunStart FindLastStart(int input, std::time_t changed) {
    const off_t offset = ::lseek(input, 0, SEEK_CUR);
    LoggedRun run;
    ReadRun(input, run); // the second reading reports an error
    ::lseek(input, offset, SEEK_SET);
    return {run.earlier_runs, run.clock.FirstMoment(changed)};
}

// 0 when not known, as for all but the last run in a file.
std::time_t StartTime(Report& report, const LoggedRun& run) {
    if (report.live && (!report.start || report.start->run != run.earlier_runs))
        report.start = {run.earlier_runs, run.clock.FirstMoment(std::time(nullptr))};
    return report.start && report.start->run == run.earlier_runs ? report.start->moment : 0;
}

void OpenRecords(Report& report) {
    const std::string& path = report.options.json;
    if (path == "-") {
        report.records.descriptor = STDOUT_FILENO;
    } else if (!path.empty()) {
        constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
        report.json_file.Reset(::open(path.c_str(), flags, 0666));
        report.records = {report.json_file.Get(), PipePatience};
        if (!report.json_file.IsOpen())
            report.Fail(path, errno);
    }
}

void PrepareOutputs(Report& report) {
    const Options& options = report.options;
    if (!options.against.empty()) {
        report.past = std::make_unique<PastRun>();
        if (!ReadPastRun(options.against, *report.past)) {
            report.Fail(options.against, errno);
            report.past.reset();
        }
    }
    OpenRecords(report);
    if (!options.no_log && options.json != "-")
        report.log.descriptor = STDOUT_FILENO;
    if (report.live && !options.quiet && options.every == 0 && ::isatty(STDERR_FILENO) != 0)
        report.line = std::make_unique<ProgressLine>(STDERR_FILENO);
    report.run.on_result = [&report](const LoggedRun& run, const Result& result) {
        if (report.records.descriptor >= 0)
            WriteResultRecord(report.records, run, result, StartTime(report, run));
        if (report.past != nullptr)
            AddChange(report.changes, *report.past, run, result);
    };
}

void ProcessPiece(Report& report, std::string_view piece) {
    if (report.line != nullptr)
        report.line->Clear();
    const bool was_passing = report.log.descriptor >= 0;
    Write(report.log, piece);
    if (was_passing && report.log.error != 0)
        report.Fail("standard output", report.log.error);
    SplitLines(report.splitter, piece, [&report](std::string_view text) { ProcessLogLine(report.run, text); });
}

std::optional<double> FileSize(const std::string& path) {
    struct stat status {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return static_cast<double>(status.st_size);
}

void ShowProgress(Report& report) {
    const double interval = report.line != nullptr ? 0.2 : report.options.every; // seconds
    const double now = SecondsNow();
    if (interval <= 0 || !report.live || now - report.last_shown < interval ||
        (report.line != nullptr && report.log.mid_line))
        return;
    report.last_shown = now;
    Progress progress{now - report.started, FileSize(report.options.archive), {}};
    if (report.past != nullptr)
        progress.expected = report.past->expectation;
    const std::string text = ProgressText(report.run, progress);
    if (report.line != nullptr)
        report.line->Show(text);
    else if (!report.options.quiet)
        std::fprintf(stderr, "vondral-report: %s\n", text.c_str());
}

void ReadLog(Report& report, int input) {
    constexpr int tick_ms = 250;
    const bool shows = report.live && (report.line != nullptr || report.options.every > 0);
    const int error = ReadToEnd(
        input, shows ? tick_ms : -1, [&report](std::string_view piece) { ProcessPiece(report, piece); },
        [&report] { ShowProgress(report); });
    if (error != 0)
        report.Fail(report.options.log.empty() ? "standard input" : report.options.log, error);
    FlushLine(report.splitter, [&report](std::string_view text) { ProcessLogLine(report.run, text); });
    FinishRun(report.run);
    report.line.reset();
}

RunContext ContextOf(const Options& options) {
    RunContext context;
    context.server = options.server;
    context.archive = options.archive;
    context.night = options.night;
    return context;
}

void WriteReports(Report& report, std::time_t ended) {
    const Options& options = report.options;
    if (report.past != nullptr && !FinishChanges(report.changes, *report.past, report.run))
        report.Fail(options.against, errno);
    const Changes* const changes = report.past != nullptr ? &report.changes : nullptr;
    const RunContext context = ContextOf(options);
    if (!options.html.empty() &&
        !ReplaceFile(options.html, HtmlPage(report.run, context, ended, report.past.get(), changes)))
        report.Fail(options.html, errno);
    if (!options.prometheus.empty() && !WritePrometheus(options.prometheus, options.labels, report.run, context, ended))
        report.Fail(options.prometheus, errno);
    if (report.records.descriptor >= 0)
        WriteRunRecords(report.records, report.run, context, StartTime(report, report.run), ended, changes);
    if (report.json_file.IsOpen() && report.json_file.Close() != 0 && report.records.error == 0)
        report.records.error = errno;
    if (report.records.error != 0)
        report.Fail(options.json == "-" ? "standard output" : options.json, report.records.error);
}

void PrintNames(const char* what, const Changes::Names& names) {
    const std::size_t shown = std::min<std::size_t>(names.names.size(), 10);
    for (std::size_t i = 0; i < shown; ++i)
        std::fprintf(stderr, "vondral-report: %s: %s\n", what, TerminalText(names.names[i]).c_str());
    if (names.count > shown)
        std::fprintf(stderr,
                     shown > 0 ? "vondral-report: %s: and %llu more\n" : "vondral-report: %s: %llu, not listed\n", what,
                     static_cast<unsigned long long>(names.count - shown));
}

// The faults that cost something.
Changes::Names LastingFaults(const LoggedRun& run) {
    Changes::Names texts;
    for (const ConnectionFault& fault : run.faults)
        if (!fault.recovered)
            texts.names.push_back(FaultText(fault, run.clock.first));
    texts.count = run.lasting_fault_count;
    return texts;
}

void PrintSummary(const Report& report) {
    std::fprintf(stderr, "vondral-report: %s\n", Summary(report.run, ContextOf(report.options)).c_str());
    PrintNames("connection", LastingFaults(report.run));
    PrintNames("newly missing", report.changes.newly_missing);
    PrintNames("no longer named", report.changes.no_longer_named);
    PrintNames("no longer missing", report.changes.no_longer_missing);
}

int MakeReport(const Options& options) {
    Report report;
    report.options = options;
    Descriptor file;
    if (!options.log.empty()) {
        file.Reset(::open(options.log.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.IsOpen()) {
            PrintError(options.log, std::strerror(errno));
            return Trouble;
        }
    }
    const int input = file.IsOpen() ? file.Get() : STDIN_FILENO;
    struct stat status {};
    ::fstat(input, &status);
    if (!OutputsSpareInputs(options, status))
        return BadUsage;
    report.live = !S_ISREG(status.st_mode);
    if (!report.live && !options.json.empty())
        report.start = FindLastStart(input, status.st_mtime);
    {
        std::optional<SignalsIgnored> ignored;
        if (report.live)
            ignored.emplace();
        PrepareOutputs(report);
        ReadLog(report, input);
    }
    WriteReports(report, report.run.clock.LastMoment(report.live ? std::time(nullptr) : status.st_mtime));
    if (!options.quiet)
        PrintSummary(report);
    if (report.trouble)
        return Trouble;
    return options.fail && StatusOf(report.run) != Status::Complete ? RunNotComplete : Done;
}

} // namespace

int Main(int argc, char** argv) {
    if (!ReserveStandardDescriptors(O_RDWR))
        return Trouble;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a file size limit is reported like a full disk
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options))
        return *status;
    if (options.log.empty() && ::isatty(STDIN_FILENO) != 0) {
        std::fprintf(stderr, "vondral-report: no FILE, and standard input is a terminal\n");
        return BadUsage;
    }
    return MakeReport(options);
}

} // namespace report

int main(int argc, char** argv) {
    return report::Main(argc, argv);
}
