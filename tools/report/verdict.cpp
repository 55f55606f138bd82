#include "verdict.h"

#include <algorithm>
#include <utility>

#include "display.h"
#include "support.h"

Status StatusOf(const LoggedRun& run) {
    if (run.terminated)
        return Status::Terminated;
    if (run.fatal)
        return Status::Failed;
    if (!run.ended)
        return Status::Unfinished;
    if (run.mode == Mode::Unknown)
        return Status::Unknown;
    if (!run.complete)
        return Status::Failed;
    const bool failures = run.Count(ObjectOutcome::Failed) > 0 || run.Get(Total::Failed).value_or(0) > 0 ||
                          run.Get(Total::ParsingErrors).value_or(0) > 0;
    return failures ? Status::WithFailures : Status::Complete;
}

const char* StatusName(Status status) {
    static constexpr const char* names[StatusCount] = {"complete", "failures",   "terminated",
                                                       "failed",   "unfinished", "unknown"};
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
    case Status::Unknown:
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

double UnnamedFailures(const LoggedRun& run) {
    return run.Count(ObjectOutcome::Failed) == 0 ? run.Get(Total::Failed).value_or(0) : 0;
}

namespace {

// Failures stand on standard error, which may not be in the log: when it names none, its totals have to say so.
bool TellsFailures(const LoggedRun& run) {
    return run.Count(ObjectOutcome::Failed) > 0 ||
           (run.mode == Mode::Restore && run.Count(ObjectOutcome::SavedInPart) > 0) ||
           (run.complete && UnnamedFailures(run) == 0 && run.unexplained == 0);
}

// A worker reports its end from -v1 on.
bool HasReported(const std::pair<const int, Worker>& worker) {
    return worker.first != 0 && worker.second.done;
}

// Whether the log is of -v1 or more.
bool TellsParts(const LoggedRun& run) {
    return run.has_figures || run.has_commands || run.Count(ObjectOutcome::SavedInPart) > 0 ||
           std::any_of(run.workers.begin(), run.workers.end(), HasReported);
}

bool Tells(const LoggedRun& run, ObjectOutcome outcome) {
    switch (outcome) {
    case ObjectOutcome::Failed:
        return TellsFailures(run);
    case ObjectOutcome::SavedInPart:
        return run.mode == Mode::Restore ? TellsFailures(run) : TellsParts(run);
    case ObjectOutcome::LeftOut:
        return run.mode == Mode::Restore;
    default:
        return true;
    }
}

} // namespace

std::optional<std::uint64_t> CountTold(const LoggedRun& run, ObjectOutcome outcome) {
    return Tells(run, outcome) ? std::optional(run.Count(outcome)) : std::nullopt;
}

std::optional<std::uint64_t> MissingTold(const LoggedRun& run) {
    const bool told = Tells(run, ObjectOutcome::Failed) && Tells(run, ObjectOutcome::SavedInPart);
    return told ? std::optional(run.Missing()) : std::nullopt;
}

std::vector<std::string> Omissions(const LoggedRun& run) {
    std::vector<std::string> omissions;
    const std::uint64_t done = run.Objects();
    if (!run.ended && !run.terminated && !run.fatal)
        omissions.emplace_back("The log has no end: the run died, or is still going. Of what came later nothing is "
                               "known, and there are no totals.");
    if (StatusOf(run) == Status::Unknown)
        omissions.emplace_back("What the run did: the log tells of neither a backup nor a restore.");
    if (done > 0 && !run.has_figures)
        omissions.emplace_back(
            "Sizes and times of the objects: the log has them from -v2 on. Without them a bar of the "
            "timeline begins where the line before ended.");
    if (run.mode == Mode::Backup && done > 0 && !TellsParts(run))
        omissions.emplace_back("Objects saved in part (-p no): the log has them from -v1 on.");
    if (!run.has_commands && !run.ended)
        omissions.emplace_back("What a worker is doing: the log tells that from -v3 on.");
    if (UnnamedFailures(run) > 0)
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
    if (StatusOf(run) == Status::Unknown)
        return text + ": the log tells of neither a backup nor a restore";
    if (StatusOf(run) == Status::Failed && !run.messages.empty())
        text += " (" + TerminalText(run.messages.back()) + ")";
    text += ": " + ShowCount(run.Count(ObjectOutcome::Saved)) + " " + OutcomeName(ObjectOutcome::Saved, run.mode);
    for (const ObjectOutcome outcome : {ObjectOutcome::Failed, ObjectOutcome::SavedInPart, ObjectOutcome::NoData,
                                        ObjectOutcome::NotFound, ObjectOutcome::LeftOut})
        if (count(outcome) > 0)
            text += FormatText(", %llu %s", count(outcome), OutcomeName(outcome, run.mode));
    if (const double files = UnnamedFailures(run); files > 0)
        text += FormatText(", %.0f file%s failed", files, files == 1 ? "" : "s");
    if (const std::optional<double> bytes = run.Get(Total::Bytes))
        text += ", " + ShowBytes(*bytes);
    else if (run.HasSizes())
        text += ", " + ShowBytes(run.bytes);
    return text + " in " + ShowDuration(run.Get(Total::RunSeconds).value_or(run.clock.elapsed));
}
