// What ctar verify prints: one line per finding, and a summary of the archive.

#pragma once

#include <cstdint>
#include <string>

#include "entry.h"
#include "progress.h"

namespace ctar {

struct FindingKind {
    const char* code;   // a stable word
    bool is_repairable; // by ctar salvage
};

namespace FindingKinds {
constexpr FindingKind Header{"header", true};          // a field that a backup writes differently
constexpr FindingKind Empty{"empty", true};            // an entry without data
constexpr FindingKind Padding{"padding", true};        // not zeros
constexpr FindingKind Unreached{"unreached", true};    // bytes after the sentinel or after a fault
constexpr FindingKind Name{"name", false};             // not a full path
constexpr FindingKind NameCut{"name-cut", false};      // as long as a name can be
constexpr FindingKind Duplicate{"duplicate", false};   // the path of an earlier entry
constexpr FindingKind Records{"records", false};       // not a whole number of records
constexpr FindingKind Missing{"missing", false};       // in the sums, not in the archive
constexpr FindingKind Uncovered{"uncovered", false};   // in the catalog, not in the archive
constexpr FindingKind Additional{"additional", false}; // in the archive, not in the sums
constexpr FindingKind Differs{"differs", false};       // name, size or data
} // namespace FindingKinds

// The totals of a comparison with sums.
struct Compared {
    bool is_active = false;       // there were sums to compare with
    std::int64_t entries = 0;     // read to their end
    std::int64_t bytes = 0;       // of data read
    std::int64_t all_entries = 0; // in the sums
    std::int64_t all_bytes = 0;
};

enum class Advice {
    Salvage,
    Wait, // a running backup may not have finished what looks like a fault
    None, // no block is a header or a sentinel
};

class Findings {
public:
    // `path` as the user gave it; `progress` is cleared before each line.
    Findings(const std::string& path, bool json, Progress& progress) : path_(path), json_(json), progress_(progress) {}

    void Report(const FindingKind& kind, std::int64_t offset, const std::string& name, const std::string& text);
    // Prints the summary, with the repair command if there is one. Returns the exit status.
    int Finish(std::int64_t entries, const Compared& compared, Advice advice);

private:
    void PrintSummary(std::int64_t entries, const Compared& compared) const;
    void PrintJsonSummary(std::int64_t entries, const Compared& compared, const std::string& repair) const;

    std::string path_;
    bool json_;
    Progress& progress_;
    std::int64_t count_ = 0;
    bool is_repairable_ = false; // some of it
};

// Reports the fields of a good header that differ from what a backup writes.
void CheckHeader(Findings& findings, const Entry& entry, const CtarBlock& header);

} // namespace ctar
