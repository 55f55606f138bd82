#include "verdict.h"

#include <algorithm>
#include <utility>

#include "display.h"
#include "text.h"

namespace report {

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
    const bool failures = run.Count(Outcome::Failed) > 0 || run.Get(Total::Failed).value_or(0) > 0 ||
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
    if (run.mode == Mode::Restore) // the last entry decides its exit status
        return 0;
    const double errors = run.Get(Total::ParsingErrors).value_or(0);
    const std::optional<double> attempted = run.Get(Total::Attempted);
    const std::optional<double> failed = run.Get(Total::Failed);
    if (run.nothing_attempted)
        return 2;
    if (!attempted || !failed)
        return std::nullopt;
    return (errors + *failed) / (errors + *attempted) < tolerated ? 1 : 2;
}

double UnnamedFailures(const LoggedRun& run) {
    return run.Count(Outcome::Failed) == 0 ? run.Get(Total::Failed).value_or(0) : 0;
}

namespace {

// Failures are reported on standard error, which may not be in the log: a log without failures is believed only when
// its totals confirm it.
bool FailuresAreKnown(const LoggedRun& run) {
    return run.Count(Outcome::Failed) > 0 || (run.mode == Mode::Restore && run.Count(Outcome::SavedInPart) > 0) ||
           (run.complete && UnnamedFailures(run) == 0 && run.unexplained == 0);
}

// A worker reports its end from -v1 on.
bool HasReported(const std::pair<const int, Worker>& worker) {
    return worker.first != 0 && worker.second.done;
}

// Whether the log was written at -v1 or higher, which reports what was saved in part.
bool PartialSavesAreKnown(const LoggedRun& run) {
    return run.has_measurements || run.has_commands || run.Count(Outcome::SavedInPart) > 0 ||
           std::any_of(run.workers.begin(), run.workers.end(), HasReported);
}

bool IsKnown(const LoggedRun& run, Outcome outcome) {
    switch (outcome) {
    case Outcome::Failed:
        return FailuresAreKnown(run);
    case Outcome::SavedInPart:
        return run.mode == Mode::Restore ? FailuresAreKnown(run) : PartialSavesAreKnown(run);
    case Outcome::NotRestored:
        return run.mode == Mode::Restore;
    default:
        return true;
    }
}

// What is not in the log.
void AddGaps(const LoggedRun& run, std::vector<std::string>& omissions) {
    if (!run.ended && !run.terminated && !run.fatal)
        omissions.emplace_back("The end of the run and its totals: the run died or is still going.");
    if (StatusOf(run) == Status::Unknown)
        omissions.emplace_back("What the run did: there is neither a backup nor a restore in the log.");
    if (run.Results() > 0 && !run.has_measurements)
        omissions.push_back(FormatText(
            "Sizes and times of the %s: the log has them from -v2 on. Without them, a bar of the timeline starts where "
            "the previous one of the same worker ends.",
            PluralUnitName(run.mode)));
    if (run.mode == Mode::Backup && run.Results() > 0 && !PartialSavesAreKnown(run))
        omissions.emplace_back("What was saved in part (-p no): the log has it from -v1 on.");
    if (!run.has_commands && !run.ended)
        omissions.emplace_back("What each worker is doing: the log has it from -v3 on.");
    if (UnnamedFailures(run) > 0)
        omissions.emplace_back("What failed and why: standard error has it, but it is not in this log.");
    if (run.unexplained > 0)
        omissions.push_back(
            FormatText("Why %s %s not restored: left out by an include or exclude file (in the log from -v1 on), or "
                       "failed (on standard error).",
                       ShowCount(run.unexplained, run.mode).c_str(), run.unexplained == 1 ? "was" : "were"));
}

// What is in the log, but not kept.
void AddLimits(const LoggedRun& run, std::vector<std::string>& omissions) {
    const char* const units = PluralUnitName(run.mode);
    if (run.missing.size() < run.Missing())
        omissions.push_back(FormatText("Missing %s beyond the first %zu.", units, run.missing.size()));
    if (run.faults.size() < run.fault_count)
        omissions.push_back(FormatText("Connection faults beyond the first %zu.", run.faults.size()));
    if (run.longest.size() < run.Results())
        omissions.push_back(FormatText("Timeline and times of all but the %zu longest of %s.", run.longest.size(),
                                       ShowCount(run.Results(), run.mode).c_str()));
    if (run.earlier_runs > 0)
        omissions.push_back(FormatText("Earlier runs in the same log: %llu. This is the last one.",
                                       static_cast<unsigned long long>(run.earlier_runs)));
}

// "9 saves", or "9 saves (7 saved, 2 failed)".
std::string ResultsText(const LoggedRun& run) {
    std::string text = ShowCount(run.Results(), run.mode);
    if (run.Results() == run.Count(Outcome::Saved))
        return text;
    const char* separator = " (";
    for (const Outcome outcome : {Outcome::Saved, Outcome::Failed, Outcome::SavedInPart, Outcome::NoData,
                                  Outcome::NotFound, Outcome::NotRestored})
        if (run.Count(outcome) > 0) {
            text += FormatText("%s%llu %s", separator, static_cast<unsigned long long>(run.Count(outcome)),
                               OutcomeName(outcome, run.mode));
            separator = ", ";
        }
    return text + ')';
}

} // namespace

std::optional<std::uint64_t> KnownCount(const LoggedRun& run, Outcome outcome) {
    return IsKnown(run, outcome) ? std::optional(run.Count(outcome)) : std::nullopt;
}

std::optional<std::uint64_t> KnownMissing(const LoggedRun& run) {
    const bool known = IsKnown(run, Outcome::Failed) && IsKnown(run, Outcome::SavedInPart);
    return known ? std::optional(run.Missing()) : std::nullopt;
}

std::vector<std::string> Omissions(const LoggedRun& run, const RunContext& context) {
    std::vector<std::string> omissions;
    const double failed = std::max(run.Get(Total::Failed).value_or(0), static_cast<double>(run.Count(Outcome::Failed)));
    if (!context.loss && run.mode == Mode::Backup && failed > 0)
        omissions.push_back(FormatText("How many files are missing: at least %.0f. The printed count can be too small, "
                                       "because a directory that fails replaces it.",
                                       failed));
    AddGaps(run, omissions);
    AddLimits(run, omissions);
    return omissions;
}

std::string LossText(const TrueLoss& loss) {
    if (loss.Missing() == 0)
        return FormatText("none of %llu files missing", static_cast<unsigned long long>(loss.attempted));
    return FormatText("%llu of %llu files missing (%s)", static_cast<unsigned long long>(loss.Missing()),
                      static_cast<unsigned long long>(loss.attempted), ShowShare(loss.MissingShare()).c_str());
}

bool IsGood(const LoggedRun& run, const RunContext& context) {
    if (context.judgement)
        return context.judgement->good;
    return StatusOf(run) == Status::Complete && !(context.loss && context.loss->Missing() > 0);
}

std::string Summary(const LoggedRun& run, const RunContext& context) {
    std::string text = context.judgement ? TerminalText(context.judgement->verdict) : StatusName(StatusOf(run));
    if (StatusOf(run) == Status::Unknown)
        return text + ": there is neither a backup nor a restore in the log";
    if (StatusOf(run) == Status::Failed && !run.messages.empty())
        text += " (" + TerminalText(run.messages.back()) + ")";
    text += ": " + ResultsText(run);
    if (context.loss)
        text += ", " + LossText(*context.loss);
    else if (const double files = UnnamedFailures(run); files > 0)
        text += FormatText(", at least %.0f file%s failed", files, files == 1 ? "" : "s");
    if (context.loss)
        text += ", " + ShowBytes(context.loss->bytes) + " in a sound archive";
    else if (const std::optional<double> bytes = run.Get(Total::Bytes))
        text += ", " + ShowBytes(*bytes);
    else if (run.HasSizes())
        text += ", " + ShowBytes(run.bytes);
    return text + " in " + ShowDuration(run.Get(Total::RunSeconds).value_or(run.clock.elapsed));
}

} // namespace report
