#include "prometheus.h"

#include <cerrno>
#include <optional>

#include <sys/stat.h>

#include "output_file.h"
#include "resources.h"
#include "text.h"
#include "verdict.h"

namespace report {

namespace {

constexpr char LastGood[] = "vondral_last_good_run_end_time_seconds";

struct Page {
    const std::string& labels;
    std::string text;
};

// A gauge's name with its labels, as it precedes the value.
std::string Series(std::string_view name, const std::string& labels) {
    return std::string(name) + (labels.empty() ? "" : '{' + labels + '}') + ' ';
}

void AddHeader(Page& page, const std::string& name, const char* help) {
    page.text += FormatText("# HELP %s %s\n# TYPE %s gauge\n", name.c_str(), help, name.c_str());
}

void AddGauge(Page& page, const std::string& name, const char* help, std::optional<double> value) {
    if (!value)
        return;
    AddHeader(page, name, help);
    page.text += Series(name, page.labels) + FormatText("%.15g\n", *value); // more digits than the log has
}

// Sets `moment` to the value that an earlier run wrote. Returns false when the file exists but cannot be read.
bool ReadLastGood(const std::string& path, const std::string& labels, std::optional<double>& moment) {
    constexpr std::size_t capacity = 65536; // no line of ours is longer
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return true; // opening a pipe would block
    const Stream file(std::fopen(path.c_str(), "re"));
    if (file == nullptr)
        return errno == ENOENT;
    const std::string series = Series(LastGood, labels);
    for (std::string line; ReadLine(file.get(), capacity, line);) {
        std::string_view value = line;
        if (!ConsumePrefix(value, series))
            continue;
        value.remove_suffix(value.ends_with('\n') ? 1 : 0);
        const std::optional<double> number = ParseNumber<double>(value);
        if (number && *number > 0)
            moment = number;
    }
    return std::ferror(file.get()) == 0;
}

void AddStatus(Page& page, Status status) {
    constexpr char name[] = "vondral_run_status";
    AddHeader(page, name, "How the last run ended, according to its log: one of these is 1.");
    for (std::size_t i = 0; i < StatusCount; ++i) {
        const std::string label = FormatText("status=\"%s\"", StatusName(static_cast<Status>(i)));
        page.text += Series(name, page.labels.empty() ? label : page.labels + ',' + label) +
                     (status == static_cast<Status>(i) ? "1\n" : "0\n");
    }
}

// The names say what is counted, so they differ between backups and restores.
void AddResults(Page& page, const LoggedRun& run) {
    const std::string name = std::string("vondral_run_") + PluralUnitName(run.mode);
    AddGauge(page, name, "Saves, or entries of a restore, that the log of the last run reports.",
             static_cast<double>(run.Results()));
    AddGauge(page, name + "_failed", "Of these, failed.", KnownCount(run, Outcome::Failed));
    AddGauge(page, name + "_missing", "Of these, failed, saved or restored in part, without data, or not found.",
             KnownMissing(run));
}

} // namespace

bool WritePrometheus(const std::string& path, const std::string& labels, const LoggedRun& run,
                     const RunContext& context, std::time_t ended, const std::string& further) {
    const Status status = StatusOf(run);
    const auto moment = ended > 0 ? std::optional(static_cast<double>(ended)) : std::nullopt;
    std::optional<double> last_good;
    if (!ReadLastGood(path, labels, last_good))
        return false;
    if (IsGood(run, context) && moment)
        last_good = moment;
    Page page{labels, {}};
    AddStatus(page, status);
    AddGauge(page, "vondral_run_end_time_seconds", "When the log of the last run ended, in seconds since the epoch.",
             moment);
    AddGauge(page, LastGood, "When the last complete run ended, in seconds since the epoch.", last_good);
    AddGauge(page, "vondral_run_exit_status", "The exit status of the last run, according to its log.",
             ExpectedExitStatus(run));
    AddGauge(page, "vondral_run_files_attempted",
             "Files that the last run tried to save, including each file in a saved directory.",
             run.Get(Total::Attempted));
    AddGauge(page, "vondral_run_files_failed", "Files of these that failed, as the log counts them: at least so many.",
             run.Get(Total::Failed));
    if (context.loss) {
        AddGauge(page, "vondral_run_files_missing", "Files of these that no entry of a sound archive covers.",
                 static_cast<double>(context.loss->Missing()));
        AddGauge(page, "vondral_run_archive_bytes", "Bytes in the sound archive of the last run.", context.loss->bytes);
    }
    AddResults(page, run);
    AddGauge(page, "vondral_run_bytes", "Bytes of the last run, as rounded in the log.", run.Get(Total::Bytes));
    AddGauge(page, "vondral_run_duration_seconds", "Duration of the last run.", run.Get(Total::RunSeconds));
    return ReplaceFile(path, page.text + further);
}

} // namespace report
