// Judges a night by its files alone: whatever the program printed or returned, a night is good only when its archives
// are sound and contain what its catalog names.

#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "contents.h"
#include "night.h"

namespace nightly {

// One line of what is missing.
struct MissedLine {
    std::string path;
    std::string text;        // as in the list: the path, and for a part of it what is known
    bool in_part = false;    // the rest of it was saved
    std::uint64_t count = 1; // how many objects, as far as the line says

    bool operator==(const MissedLine&) const = default;
};
MissedLine ParseMissed(std::string_view text);

struct Judgement {
    NightRecord record;             // all but what the caller knows (level, base, times, server)
    std::vector<MissedLine> missed; // what is still missing, after all retries
    bool ran_to_end = false;        // some attempt at the whole night reached its end
};

struct JudgeRules {
    double tolerate = 0;   // share of files that may be missing
    double max_shrink = 1; // share of files or bytes by which the night may be smaller than `like`
    bool accept_shrink = false;
    std::vector<std::string> mistakes;  // in the path files, that make a run save something else than was meant
    const Night* like = nullptr;        // the last good night of the same level, if any
    std::set<std::string> known_missed; // paths that were missing in the last good night
    // Of a changed night:
    std::vector<MissedLine> carried; // what its base missed; an attempt at the whole night does not save it unless it
                                     // has changed, so it is missing until a retry that names it has saved it
    // Whether its base has files that this include line names, and nothing else that matches: "not found" then says
    // that they have not changed.
    std::function<bool(const std::string& line)> is_in_base;
};

// The exit statuses of vondral; below 0 when not known.
struct ExitStatuses {
    int whole = -1; // of the last attempt at the whole night
    int last = -1;  // of the last attempt
};

// Reads the attempts 0 to `retries` of the night in `directory`. Throws Failure when an archive that exists cannot be
// opened.
Judgement JudgeNight(const std::string& directory, int retries, ExitStatuses statuses, const JudgeRules& rules);

// All paths that the night's catalogs name. A line that was cut short by a kill is left out.
std::vector<std::string> CatalogPaths(const std::string& directory);
// Of these, the ones that its archives contain, and the paths of their entries.
std::vector<std::string> CoveredPaths(const std::string& directory, const std::vector<std::string>& archives);
// The entries of those archives whose attempts died or were stopped: the catalogs may lack files of a directory among
// them.
std::vector<std::string> EntriesOfDied(const std::string& directory, const std::vector<std::string>& archives);
// Throws Failure when a catalog or a list of what was missed has a line that cannot be read.
void RequireReadable(const std::string& path);
std::vector<MissedLine> ReadMissed(const std::string& path); // none when there is no such file

// Whether a retry saved only what had been missed, rather than everything.
bool IsPartialRetry(const std::string& directory, int retry);
// The last attempt at the whole night, and its log; what followed saved only what was missed. Require: a record.
int WholeAttemptOf(const Night& night);
std::string WholeLogOf(const Night& night);
std::string IncludeFileOf(const std::string& directory, int retry);

} // namespace nightly
