// What the log of a run does not say, and whoever reports on the run may know: where it ran, what its archive proved to
// be, and what the last one came to. Plain records; every field may be left as it is.

#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace report {

// The archive compared with what the run attempted. The log's own count of failed files can be much too small: a
// directory that fails sets it to its own count, whatever it was.
struct TrueLoss {
    std::uint64_t attempted = 0; // files
    std::uint64_t covered = 0;   // of these, by an entry of a sound archive
    double bytes = 0;            // of data in the sound archive

    std::uint64_t Missing() const { return attempted - std::min(covered, attempted); }
    double MissingShare() const { // from 0 to 1
        return attempted > 0 ? static_cast<double>(Missing()) / static_cast<double>(attempted) : 0;
    }
};

// What somebody who examined more than the log concluded. It takes the place of the status according to the log.
struct Judgement {
    std::string verdict;   // a word or two: "good with gaps"
    bool good = false;     // the run counts as a good one
    bool has_gaps = false; // though something is missing
    std::vector<std::string> reasons;
};

struct RunContext {
    std::string server, archive, night; // names to show, "" when not known
    std::optional<TrueLoss> loss;
    std::optional<Judgement> judgement;
};

// What a run will probably come to: what the last good one came to. 0 for what is not known.
struct Expectation {
    std::uint64_t results = 0; // saves or entries
    double bytes = 0;
    double seconds = 0;
};

} // namespace report
