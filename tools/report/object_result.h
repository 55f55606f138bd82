// What became of one object of a run, and collections of the few that a reader looks for first.
//
// An object is what one line of the log reports: a file, a directory, a library or the document library saved as one.
// The totals of the log count the files in such a directory one by one.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

enum class Mode { Unknown, Backup, Restore };

enum class ObjectOutcome {
    Saved, // or restored
    SavedInPart,
    NoData, // the server saved it without data, so that the archive has no entry
    Failed,
    NotFound, // a path of the include file
    LeftOut,  // of a restore: the log tells neither success nor failure
};
constexpr std::size_t OutcomeCount = 6;

const char* OutcomeName(ObjectOutcome outcome, Mode mode);

// Whether something is missing that was asked for.
bool IsMissing(ObjectOutcome outcome);

struct ObjectResult {
    std::string name;
    ObjectOutcome outcome{};
    int thread = 0;
    double begun = 0; // seconds after the log's first line; as early as the log tells
    double ended = 0;
    std::optional<double> bytes;
    std::optional<double> save, wait, transfer, restore; // seconds of its phases
    std::string reason;                                  // of what is missing, as far as the log tells

    // Seconds that the log gives for all phases; nothing when it gives none.
    std::optional<double> Measured() const;
};

// Measures of an object.
double SpanOf(const ObjectResult& object);  // seconds
double BytesOf(const ObjectResult& object); // 0 when not known
using Measure = double (*)(const ObjectResult&);

// Keeps the `most` objects of the greatest measure in what is a heap, the least of them in front.
void KeepGreatest(std::vector<ObjectResult>& heap, std::size_t most, const ObjectResult& object, Measure measure);

// The same objects with the greatest in front; equal ones in the order of their begin.
std::vector<ObjectResult> Ranked(std::vector<ObjectResult> objects, Measure measure);
