// What ctar verify finds: one line each, and a summary of the archive.

#pragma once

#include <cstdint>
#include <string>

#include "entry.h"
#include "progress.h"

struct FindingKind {
    const char* code; // a stable word
    bool mends;       // ctar salvage does away with it
};

namespace FindingKinds {
constexpr FindingKind Header{"header", true};          // a field that the writer writes otherwise
constexpr FindingKind Empty{"empty", true};            // an entry without data
constexpr FindingKind Padding{"padding", true};        // not zeros
constexpr FindingKind Unreached{"unreached", true};    // bytes behind the sentinel, or behind damage
constexpr FindingKind Name{"name", false};             // not a full path
constexpr FindingKind NameCut{"name-cut", false};      // as long as names can be
constexpr FindingKind Duplicate{"duplicate", false};   // a name that stands before already
constexpr FindingKind Records{"records", false};       // no whole number of records
constexpr FindingKind Missing{"missing", false};       // in the sums, not in the archive
constexpr FindingKind Additional{"additional", false}; // in the archive, not in the sums
constexpr FindingKind Differs{"differs", false};       // name, size or data
} // namespace FindingKinds

// The totals of comparing with sums; nothing was compared while `active` is false.
struct Compared {
    bool active = false;
    std::int64_t entries = 0;     // that were read to their end
    std::int64_t bytes = 0;       // of data that were read
    std::int64_t all_entries = 0; // of the sums
    std::int64_t all_bytes = 0;
};

enum class Cure {
    Salvage,
    Wait,    // the faults may be what a backup under way has not done yet
    Nothing, // not one block is a header or a sentinel
};

class Findings {
public:
    // `path` as the user gave it; `progress` makes way for the lines.
    Findings(const std::string& path, bool json, Progress& progress) : path_(path), json_(json), progress_(progress) {}

    void Report(const FindingKind& kind, std::int64_t offset, const std::string& name, const std::string& text);
    // Writes the summary, which offers to mend the archive, or says that there is none. Gives the exit status.
    int Finish(std::int64_t entries, const Compared& compared, Cure cure);

private:
    std::string path_;
    bool json_;
    Progress& progress_;
    std::int64_t count_ = 0;
    bool mends_ = false;
};

// Reports fields of a good header that are not as the writer writes them.
void CheckHeader(Findings& findings, const Entry& entry, const CtarBlock& header);
