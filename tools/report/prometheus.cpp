#include "prometheus.h"

#include <cerrno>
#include <charconv>
#include <fstream>
#include <optional>

#include "output_file.h"
#include "support.h"
#include "verdict.h"

namespace {

constexpr std::string_view LastGood = "vondral_last_good_run_end_time_seconds";

void AddHeader(std::string& text, std::string_view name, const char* help) {
    text += FormatText("# HELP %s %s\n# TYPE %s gauge\n", name.data(), help, name.data());
}

void AddGauge(std::string& text, std::string_view name, const char* help, std::optional<double> value) {
    if (!value)
        return;
    AddHeader(text, name, help);
    text += FormatText("%s %.17g\n", name.data(), *value);
}

// The moment that an earlier run has left in the file. False when the file is there and cannot be read.
bool ReadLastGood(const std::string& path, std::optional<double>& moment) {
    errno = 0;
    std::ifstream file(path);
    if (!file)
        return errno == ENOENT;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(std::string(LastGood) + ' '))
            continue;
        const char* const end = line.data() + line.size();
        double value = 0;
        const auto [stop, error] = std::from_chars(line.data() + LastGood.size() + 1, end, value);
        if (error == std::errc() && stop == end && value > 0)
            moment = value;
    }
    return !file.bad();
}

void AddStatus(std::string& text, Status status) {
    constexpr std::string_view name = "vondral_run_status";
    AddHeader(text, name, "How the last run ended by its log; one of these is 1.");
    for (std::size_t i = 0; i < StatusCount; ++i)
        text += FormatText("%s{status=\"%s\"} %d\n", name.data(), StatusName(static_cast<Status>(i)),
                           status == static_cast<Status>(i) ? 1 : 0);
}

} // namespace

bool WritePrometheus(const std::string& path, const LoggedRun& run, std::time_t ended) {
    const Status status = StatusOf(run);
    const auto moment = ended > 0 ? std::optional(static_cast<double>(ended)) : std::nullopt;
    std::optional<double> last_good;
    if (!ReadLastGood(path, last_good))
        return false;
    if (status == Status::Complete && moment)
        last_good = moment;
    std::string text;
    AddStatus(text, status);
    AddGauge(text, "vondral_run_end_time_seconds", "When the log of the last run ended, since the epoch.", moment);
    AddGauge(text, LastGood, "When the last run ended whose status was complete, since the epoch.", last_good);
    AddGauge(text, "vondral_run_exit_status", "The exit status that the log stands for.", ExpectedExitStatus(run));
    AddGauge(text, "vondral_run_files_attempted", "Files of the last run, those in directories one by one.",
             run.Get(Total::Attempted));
    AddGauge(text, "vondral_run_files_failed", "Of these, not saved.", run.Get(Total::Failed));
    AddGauge(text, "vondral_run_objects", "Objects that the log of the last run reports.",
             static_cast<double>(run.Objects()));
    AddGauge(text, "vondral_run_objects_failed", "Of these, failed.",
             static_cast<double>(run.Count(ObjectOutcome::Failed)));
    AddGauge(text, "vondral_run_objects_missing", "Of these, failed, saved in part or without data, or not found.",
             static_cast<double>(run.Missing()));
    AddGauge(text, "vondral_run_bytes", "Bytes of the last run, as the log rounds them.", run.Get(Total::Bytes));
    AddGauge(text, "vondral_run_duration_seconds", "What the last run took.", run.Get(Total::RunSeconds));
    return ReplaceFile(path, text);
}
