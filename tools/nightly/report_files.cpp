#include "report_files.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

#include "drill.h"
#include "failure.h"
#include "judge.h"
#include "report/html.h"
#include "report/log_reader.h"
#include "report/output_file.h"
#include "report/past_run.h"
#include "report/prometheus.h"
#include "resources.h"
#include "text.h"

namespace nightly {

namespace {

report::RunContext ContextOf(const Config& config, const Night& night) {
    const NightRecord& record = *night.record;
    report::RunContext context;
    context.server = config.server;
    context.archive = AttemptFile(NightFiles::Archive, WholeAttemptOf(night));
    context.night = night.Name();
    const std::uint64_t attempted = std::max({record.attempted, record.objects, record.missing});
    context.loss = report::TrueLoss{attempted, attempted - record.missing, static_cast<double>(record.bytes)};
    context.judgement = report::Judgement{VerdictName(record.verdict), IsGood(record.verdict),
                                          record.verdict == Verdict::GoodWithGaps, record.reasons};
    if (record.retries > 0)
        context.judgement->reasons.push_back(
            FormatText("The night took %d attempts; what follows is about the last one at the whole night (%s).",
                       record.retries + 1, AttemptFile(NightFiles::Log, WholeAttemptOf(night)).c_str()));
    return context;
}

// A log, and how it differs from an earlier one.
struct Reading {
    report::LoggedRun run;
    std::unique_ptr<report::PastRun> past;
    report::Changes changes;

    const report::Changes* ChangesOrNull() const { return past != nullptr ? &changes : nullptr; }
};

void ReadNightLog(Reading& reading, const Night& night, const Night* last_good) {
    // Compared with a night of another level, most of what differs would only be what was not saved.
    if (last_good != nullptr && last_good->record->level == night.record->level) {
        reading.past = std::make_unique<report::PastRun>();
        if (!report::ReadPastRun(WholeLogOf(*last_good), *reading.past))
            reading.past.reset();
    }
    reading.run.on_result = [&reading](const report::LoggedRun& run, const report::Result& result) {
        if (reading.past != nullptr)
            report::AddChange(reading.changes, *reading.past, run, result);
    };
    const std::string path = WholeLogOf(night);
    const Descriptor log(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!log.IsOpen() || (errno = report::ReadRun(log.Get(), reading.run)) != 0)
        throw Failure(ctar::WithReason(path));
    if (reading.past != nullptr && !report::FinishChanges(reading.changes, *reading.past, reading.run))
        reading.past.reset();
    if (reading.past != nullptr)
        reading.past->path = last_good->Name();
}

std::string Gauges(const Config& config, const Night& night) {
    const NightRecord& record = *night.record;
    struct Gauge {
        const char* name;
        const char* help;
        double value;
    };
    std::vector<Gauge> gauges{
        {"vondral_night_good", "Whether the last night counts as a backup.", IsGood(record.verdict) ? 1.0 : 0.0},
        {"vondral_night_start_time_seconds", "When the last night began.", static_cast<double>(night.moment)},
        {"vondral_night_files", "Files that the archives of the last night contain.",
         static_cast<double>(record.objects)},
        {"vondral_night_files_missing", "Files that they should contain and do not.",
         static_cast<double>(record.missing)},
        {"vondral_night_files_newly_missing", "Names that were not missing in the last good night.",
         static_cast<double>(record.newly_missing)},
        {"vondral_night_bytes", "Bytes of data in the archives of the last night.", static_cast<double>(record.bytes)},
        {"vondral_night_duration_seconds", "Duration of the last night with its retries.", record.Seconds()}};
    if (const std::optional<DrillRecord> drill = ReadDrill(config.directory)) {
        gauges.push_back(
            {"vondral_drill_time_seconds", "When the last drill was.", static_cast<double>(drill->moment)});
        gauges.push_back({"vondral_drill_good", "Whether it restored its library.", drill->good ? 1.0 : 0.0});
    }
    std::string text;
    for (const Gauge& gauge : gauges)
        text += FormatText("# HELP %s %s\n# TYPE %s gauge\n%s{server=\"%s\"} %.15g\n", gauge.name, gauge.help,
                           gauge.name, gauge.name, config.name.c_str(), gauge.value);
    return text;
}

} // namespace

void WriteReports(Disk& disk, const Config& config, const Night& night, const Night* last_good) {
    Reading reading;
    ReadNightLog(reading, night, last_good);
    const report::RunContext context = ContextOf(config, night);
    const std::time_t ended = night.record->ended;
    disk.WriteFile(night.File(NightFiles::Page),
                   report::HtmlPage(reading.run, context, ended, reading.past.get(), reading.ChangesOrNull()));
    if (config.metrics.empty())
        return;
    std::string labels = "server=\"" + config.name + "\"";
    if (!report::WritePrometheus(config.metrics, labels, reading.run, context, ended, Gauges(config, night)))
        throw Failure(ctar::WithReason(config.metrics));
    // Whoever collects the gauges is another user. A device keeps its mode.
    struct stat status {};
    if (::stat(config.metrics.c_str(), &status) != 0 ||
        (S_ISREG(status.st_mode) && ::chmod(config.metrics.c_str(), 0644) != 0))
        throw Failure(ctar::WithReason(config.metrics));
}

report::Expectation ExpectationFrom(const Night* last_good) {
    report::Expectation expected;
    if (last_good == nullptr)
        return expected;
    report::PastRun past;
    if (report::ReadPastRun(WholeLogOf(*last_good), past))
        expected = past.expectation;
    return expected;
}

} // namespace nightly
