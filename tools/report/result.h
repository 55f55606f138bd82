// The result of one save of a backup, or of one entry of a restore, and collections of the few that a reader looks for
// first.
//
// A save is what the server saves as one: a file, a library, the document library, or a directory with all it contains.
// The log reports each on one line, "Backup Success: NAME" or "Backup Failure: NAME". An entry is one save in the
// archive, which a restore sends back as one. The totals of the log ("Objects Attempted") count files: every file of a
// saved directory on its own.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace report {

enum class Mode { Unknown, Backup, Restore };

// "1 save", "2 entries".
std::string ShowCount(std::uint64_t count, Mode mode);
// "save" or "entry", "saves" or "entries".
const char* UnitName(Mode mode);
const char* PluralUnitName(Mode mode);

enum class Outcome {
    Saved, // or restored
    SavedInPart,
    NoData, // the server's save file was empty, so the archive has no entry
    Failed,
    NotFound,    // a path of the include file that is not on the server
    NotRestored, // an entry for which the log reports neither success nor failure
};
constexpr std::size_t OutcomeCount = 6;

const char* OutcomeName(Outcome outcome, Mode mode);

// Whether something is missing, in whole or in part, that was asked for.
bool IsMissing(Outcome outcome);

struct Result {
    std::string name;
    Outcome outcome{};
    int thread = 0;
    double start = 0; // seconds after the first line of the log; the earliest time that the log allows
    double end = 0;
    std::optional<double> bytes;
    std::optional<double> save_seconds, wait_seconds, transfer_seconds, restore_seconds; // of its phases
    std::string reason; // why it is missing or not restored, "" when the log has no reason

    // The sum of the phases; nothing when the log has none of them.
    std::optional<double> PhaseSeconds() const;
};

// Measures of a result.
double DurationOf(const Result& result); // seconds from start to end
double BytesOf(const Result& result);    // 0 when not known
using Measure = double (*)(const Result&);

// Adds the result to a heap of at most `most` results with the greatest measures; the smallest is in front.
void KeepGreatest(std::vector<Result>& heap, std::size_t most, const Result& result, Measure measure);

// The same results, the greatest first; equal ones by start.
std::vector<Result> Ranked(std::vector<Result> results, Measure measure);

} // namespace report
