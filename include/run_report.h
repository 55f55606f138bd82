// The figures of a run and the lines on standard output that report them. Nothing here fails. Any thread may report; a
// record belongs to whoever holds it.

#pragma once

#include <cstdint>

// Seconds that a backup spent on one object, or the sum over several.
struct SaveTimes {
    double save = 0;     // by the server's save command
    double wait = 0;     // for other workers' retrievals
    double transfer = 0; // by the retrieval

    SaveTimes& operator+=(const SaveTimes& other);
};

// Seconds that a restore spent on one entry.
struct RestoreTimes {
    double restore = 0;  // from the end of the upload to the end of the last restore command
    double transfer = 0; // by the upload
};

// What a worker did; summed up, what the run did.
struct BackupTotals {
    std::uint64_t attempted = 0; // files
    std::uint64_t failed = 0;    // as printed: a directory that fails sets it to its own count, whatever it was
    std::uint64_t failures = 0;  // every failure, a directory as one
    SaveTimes seconds;
    std::uint64_t bytes = 0; // archived

    BackupTotals& operator+=(const BackupTotals& other);
};

// What listing the server came to.
struct ListingTotals {
    std::uint64_t list_calls = 0;
    std::uint64_t parse_errors = 0; // lines that failed to parse, and failed listings that cost objects
    std::uint64_t objects_found = 0;
    double list_bytes = 0;
};

// An amount brought into a readable range, and the index of its unit: 0 none, 1 kilo, 2 mega, 3 giga.
struct ScaledAmount {
    double value;
    int unit;
};
ScaledAmount ScaleDecimal(double amount); // divides by 1000 while above 2000: objects and restored amounts
ScaledAmount ScaleBinary(double amount);  // divides by 1024 while above 2048: totals of a run or a thread

// One saved object of `bytes` archived bytes.
void ReportObject(std::int64_t bytes, const SaveTimes& times);
// One worker that has ended.
void ReportWorker(std::uint32_t thread, const BackupTotals& totals);
// What listing came to, in `seconds`. `always` reports the parse errors even when there are none.
void ReportListing(const ListingTotals& listing, double seconds, bool always);
// The backup as a whole.
void ReportBackup(const BackupTotals& totals, double seconds);

// One restored entry of `bytes` data bytes.
void ReportEntry(std::int64_t bytes, const RestoreTimes& times);
// The restore as a whole: `bytes` of the archive were processed in `seconds`.
void ReportRestore(std::int64_t bytes, double seconds);
