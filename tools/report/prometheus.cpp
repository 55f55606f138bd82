#include "prometheus.h"

#include <cerrno>
#include <charconv>
#include <fstream>
#include <optional>

#include <sys/stat.h>

#include "output_file.h"
#include "support.h"
#include "verdict.h"

namespace {

constexpr std::string_view LastGood = "vondral_last_good_run_end_time_seconds";

struct Page {
    const std::string& labels;
    std::string text;
};

// A gauge's name with its labels, as it stands before the value.
std::string Series(std::string_view name, const std::string& labels) {
    return std::string(name) + (labels.empty() ? "" : '{' + labels + '}') + ' ';
}

void AddHeader(Page& page, std::string_view name, const char* help) {
    page.text += FormatText("# HELP %s %s\n# TYPE %s gauge\n", name.data(), help, name.data());
}

void AddGauge(Page& page, std::string_view name, const char* help, std::optional<double> value) {
    if (!value)
        return;
    AddHeader(page, name, help);
    page.text += Series(name, page.labels) + FormatText("%.15g\n", *value); // all that the log tells
}

// The moment that an earlier run has left in the file. False when the file is there and cannot be read.
bool ReadLastGood(const std::string& path, const std::string& labels, std::optional<double>& moment) {
    errno = 0;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return true; // a pipe would be waited for
    std::ifstream file(path);
    if (!file)
        return errno == ENOENT;
    const std::string series = Series(LastGood, labels);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(series))
            continue;
        const char* const end = line.data() + line.size();
        double value = 0;
        const auto [stop, error] = std::from_chars(line.data() + series.size(), end, value);
        if (error == std::errc() && stop == end && value > 0)
            moment = value;
    }
    return !file.bad();
}

void AddStatus(Page& page, Status status) {
    constexpr std::string_view name = "vondral_run_status";
    AddHeader(page, name, "How the last run ended by its log; one of these is 1.");
    for (std::size_t i = 0; i < StatusCount; ++i) {
        const std::string label = FormatText("status=\"%s\"", StatusName(static_cast<Status>(i)));
        page.text += Series(name, page.labels.empty() ? label : page.labels + ',' + label) +
                     (status == static_cast<Status>(i) ? "1\n" : "0\n");
    }
}

} // namespace

bool WritePrometheus(const std::string& path, const std::string& labels, const LoggedRun& run, std::time_t ended) {
    const Status status = StatusOf(run);
    const auto moment = ended > 0 ? std::optional(static_cast<double>(ended)) : std::nullopt;
    std::optional<double> last_good;
    if (!ReadLastGood(path, labels, last_good))
        return false;
    if (status == Status::Complete && moment)
        last_good = moment;
    Page page{labels, {}};
    AddStatus(page, status);
    AddGauge(page, "vondral_run_end_time_seconds", "When the log of the last run ended, since the epoch.", moment);
    AddGauge(page, LastGood, "When the last run ended whose status was complete, since the epoch.", last_good);
    AddGauge(page, "vondral_run_exit_status", "The exit status that the log stands for.", ExpectedExitStatus(run));
    AddGauge(page, "vondral_run_files_attempted", "Files of the last run, those in directories one by one.",
             run.Get(Total::Attempted));
    AddGauge(page, "vondral_run_files_failed", "Of these, not saved.", run.Get(Total::Failed));
    AddGauge(page, "vondral_run_objects", "Objects that the log of the last run reports.",
             static_cast<double>(run.Objects()));
    AddGauge(page, "vondral_run_objects_failed", "Of these, failed.", CountTold(run, ObjectOutcome::Failed));
    AddGauge(page, "vondral_run_objects_missing", "Of these, failed, saved in part or without data, or not found.",
             MissingTold(run));
    AddGauge(page, "vondral_run_bytes", "Bytes of the last run, as the log rounds them.", run.Get(Total::Bytes));
    AddGauge(page, "vondral_run_duration_seconds", "What the last run took.", run.Get(Total::RunSeconds));
    return ReplaceFile(path, page.text);
}
