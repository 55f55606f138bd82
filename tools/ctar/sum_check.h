// Compares the entries of an archive with a file of sums, both in the order of offsets.

#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

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
    // Reports the entries that did not come, and reads the data that wait.
    Compared Finish();

private:
    struct Waiting {
        std::int64_t offset; // of the header
        long line;           // position of its line in the file of sums
    };

    void ReportMissing();
    void CompareData(const Entry& entry, const SumLine& line);
    bool IsTimeUp() const;

    const SumCheckOptions& options_;
    Input& input_;
    Findings& findings_;
    Progress& progress_;
    SumsFile sums_;
    std::mt19937_64 random_;
    std::vector<Waiting> waiting_;
    double begun_;
    Compared compared_;
};
