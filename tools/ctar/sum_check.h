// Compares the entries of an archive with a file of sums, both in the order of offsets.

#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>

#include "findings.h"
#include "sums.h"

struct SumCheckOptions {
    std::string sums;        // path, empty: nothing is compared
    double sample = 100;     // percent of the entries whose data are read
    double max_duration = 0; // seconds for reading data, 0: no limit
    std::uint64_t seed = 0;  // of the choice of entries
};

// Under a limit of time the data are read last, in random order, so that every night reads others: 16 bytes of memory
// an entry. Without one they are read as the walk comes by.
class SumCheck {
public:
    SumCheck(const SumCheckOptions& options, Input& input, Findings& findings, Progress& progress);

    // Takes the next entry of the walk, the input standing at its data, and may read some of these.
    void Take(const Entry& entry);
    // The chain of entries ends here, by a fault: entries from here on that do not come are unreadable, not missing.
    void PassFault(std::int64_t offset) { fault_ = offset; }
    // Whether the sums have an entry there. Requires, as Take() does: the offsets ascend.
    bool Expects(std::int64_t offset);
    // Reports the entries that did not come, and reads the data that wait.
    Compared Finish();

private:
    struct Waiting {
        std::int64_t offset; // of the header
        long line;           // position of its line in the file of sums
    };

    void TakeLine();
    void ReportMissing();
    void CompareData(const Entry& entry, const SumLine& line);
    bool IsTimeUp() const;

    const SumCheckOptions& options_;
    Input& input_;
    Findings& findings_;
    Progress& progress_;
    SumsFile sums_;
    std::mt19937_64 random_;
    std::deque<Waiting> waiting_; // a vector takes three times the memory while it grows
    double begun_ = 0;            // when reading data under a limit of time began
    std::int64_t fault_ = INT64_MAX;
    Compared compared_;
};
