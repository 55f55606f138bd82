#include "verdict.h"

#include <algorithm>
#include <utility>

#include "support.h"
#include "text.h"

Status StatusOf(const LoggedRun& run) {
    if (run.terminated)
        return Status::Terminated;
    if (run.fatal)
        return Status::Failed;
    if (!run.ended)
        return Status::Unfinished;
    if (run.mode != Mode::Unknown && !run.complete)
        return Status::Failed;
    const bool failures = run.Count(ObjectOutcome::Failed) > 0 || run.Get(Total::Failed).value_or(0) > 0 ||
                          run.Get(Total::ParsingErrors).value_or(0) > 0;
    return failures ? Status::WithFailures : Status::Complete;
}

const char* StatusName(Status status) {
    static constexpr const char* names[StatusCount] = {"complete", "failures", "terminated", "failed", "unfinished"};
    return names[static_cast<std::size_t>(status)];
}

std::optional<int> ExpectedExitStatus(const LoggedRun& run) {
    constexpr double tolerated = 0.10;
    switch (StatusOf(run)) {
    case Status::Complete:
        return 0;
    case Status::Terminated:
        return 143;
    case Status::Failed:
        return 255;
    case Status::Unfinished:
        return std::nullopt;
    case Status::WithFailures:
        break;
    }
    if (run.mode == Mode::Restore) // its last entry decides
        return 0;
    const double errors = run.Get(Total::ParsingErrors).value_or(0);
    const std::optional<double> attempted = run.Get(Total::Attempted);
    const std::optional<double> failed = run.Get(Total::Failed);
    if (run.idle)
        return 2;
    if (!attempted || !failed)
        return std::nullopt;
    return (errors + *failed) / (errors + *attempted) < tolerated ? 1 : 2;
}

namespace {

// A worker reports its end from -v1 on.
bool HasReported(const std::pair<const int, Worker>& worker) {
    return worker.first != 0 && worker.second.done;
}

} // namespace

std::vector<std::string> Omissions(const LoggedRun& run) {
    std::vector<std::string> omissions;
    const std::uint64_t done = run.Objects();
    if (!run.ended && !run.terminated && !run.fatal)
        omissions.emplace_back("The log has no end: the run died, or is still going. Of what came later nothing is "
                               "known, and there are no totals.");
    if (done > 0 && !run.has_figures)
        omissions.emplace_back(
            "Sizes and times of the objects: the log has them from -v2 on. Without them a bar of the "
            "timeline begins where the line before ended.");
    if (run.mode == Mode::Backup && done > 0 && std::none_of(run.workers.begin(), run.workers.end(), HasReported))
        omissions.emplace_back("Objects saved in part (-p no): the log has them from -v1 on.");
    if (!run.has_commands && !run.ended)
        omissions.emplace_back("What a worker is doing: the log tells that from -v3 on.");
    if (run.mode == Mode::Backup && run.Get(Total::Failed).value_or(0) > 0 && run.Count(ObjectOutcome::Failed) == 0)
        omissions.emplace_back("The objects that failed: they stand on standard error, which is not in this log.");
    if (run.unexplained > 0)
        omissions.push_back(
            FormatText("Whether %llu entries that were not restored are left out by an include or exclude "
                       "file (told from -v1 on), or failed: both stand on standard error.",
                       static_cast<unsigned long long>(run.unexplained)));
    if (run.missing.size() < run.Missing())
        omissions.push_back(FormatText("Only the first %zu objects that are missing are named.", run.missing.size()));
    if (run.drawn.size() < done)
        omissions.push_back(
            FormatText("The timeline and the slowest objects are taken from the %zu that took longest, of %llu.",
                       run.drawn.size(), static_cast<unsigned long long>(done)));
    if (run.earlier_runs > 0)
        omissions.push_back(FormatText("The log holds %llu earlier runs; this is the last one.",
                                       static_cast<unsigned long long>(run.earlier_runs)));
    return omissions;
}

std::string Summary(const LoggedRun& run) {
    const auto count = [&run](ObjectOutcome outcome) { return static_cast<unsigned long long>(run.Count(outcome)); };
    std::string text = StatusName(StatusOf(run));
    if (StatusOf(run) == Status::Failed && !run.messages.empty())
        text += " (" + TerminalText(run.messages.back()) + ")";
    text += ": " + ShowCount(run.Count(ObjectOutcome::Saved)) + " " + OutcomeName(ObjectOutcome::Saved, run.mode);
    for (const ObjectOutcome outcome : {ObjectOutcome::Failed, ObjectOutcome::SavedInPart, ObjectOutcome::NoData,
                                        ObjectOutcome::NotFound, ObjectOutcome::LeftOut})
        if (count(outcome) > 0)
            text += FormatText(", %llu %s", count(outcome), OutcomeName(outcome, run.mode));
    if (const std::optional<double> bytes = run.Get(Total::Bytes))
        text += ", " + ShowBytes(*bytes);
    else if (run.HasSizes())
        text += ", " + ShowBytes(run.bytes);
    return text + " in " + ShowDuration(run.Get(Total::RunSeconds).value_or(run.clock.elapsed));
}
