// Compares the entries of an archive with a file of sums. Both are in ascending order of offsets.

#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>

#include "findings.h"
#include "sum_lines.h"

namespace ctar {

struct SumCheckOptions {
    std::string sums;        // path; empty if there is nothing to compare with
    double sample = 100;     // percent of the entries whose data are read
    double max_duration = 0; // seconds for reading data, 0 for no limit
    std::uint64_t seed = 0;  // of the random choice of entries
};

// With a time limit the data are read last and in random order, so that every run reads different ones; this costs 16
// bytes of memory per entry. Without one they are read during the walk.
class SumCheck {
public:
    SumCheck(const SumCheckOptions& options, Input& input, Findings& findings, Progress& progress);

    // Compares the next entry of the walk, and may read some of its data. Requires: the input is at the entry's data,
    // and the offsets passed here and to Expects() ascend.
    void Compare(const Entry& entry);
    // Tells that the chain ends at a fault: entries missing from there on are unreadable rather than gone.
    void SetFault(std::int64_t offset) { fault_ = offset; }
    // Whether the sums have an entry at that offset. Reports those before it as missing.
    bool Expects(std::int64_t offset);
    // Reports the remaining entries of the sums as missing, and reads the data that were deferred.
    Compared Finish();

private:
    struct Deferred {
        std::int64_t offset; // of the header
        long line;           // position of its line in the file of sums
    };

    void ConsumeLine();
    void ReportMissing();
    void CompareData(const Entry& entry, const SumLine& line);
    bool IsTimeUp() const;

    const SumCheckOptions& options_;
    Input& input_;
    Findings& findings_;
    Progress& progress_;
    SumsFile sums_;
    std::mt19937_64 random_;
    std::deque<Deferred> deferred_; // a vector needs three times the memory while it grows
    double start_ = 0;              // when reading the deferred data began, as SecondsNow()
    std::int64_t fault_ = INT64_MAX;
    Compared compared_;
};

} // namespace ctar
