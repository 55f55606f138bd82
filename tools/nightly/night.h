// The nights of a server on disk; vondral-nights(5) describes the layout. A night is a directory of its own, with
// ".incomplete" after its name until it has proved good. Whatever in the directory is not named as here is
// ignored and never touched.

#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "disk.h"

namespace nightly {

enum class Level { Full, Changed };
const char* LevelName(Level level); // "full", "changed"

enum class Verdict { Good, GoodWithGaps, Suspicious, Failed };
const char* VerdictName(Verdict verdict); // "good", "good with gaps", "suspicious", "failed"
// Whether the night counts as a backup: for the status, for retention, as the base of a changed night.
constexpr bool IsGood(Verdict verdict) {
    return verdict == Verdict::Good || verdict == Verdict::GoodWithGaps;
}

// What is known of a night: the contents of run.json.
struct NightRecord {
    std::string name; // of the configuration
    std::string server;
    std::uint64_t sequence = 0; // 1 for the first night that ran here, then one more each, whatever the clock said
    Level level = Level::Full;
    Verdict verdict = Verdict::Failed;
    std::vector<std::string> reasons; // why it is not simply good
    std::time_t started = 0, ended = 0;
    std::optional<std::time_t> base;   // the night that a changed one builds on
    std::optional<std::time_t> cutoff; // changed since
    int exit_status = -1;              // of the last vondral
    int retries = 0;
    std::uint64_t attempted = 0;              // files
    std::uint64_t objects = 0;                // of these, files that a sound archive contains, libraries as one each
    std::uint64_t missing = 0;                // of these, not; in part counts too
    std::uint64_t newly_missing = 0;          // names that were not missing in the last good night
    std::uint64_t missed_lines = 0;           // of the list of what is missing
    std::uint64_t bytes = 0;                  // of data in sound archives
    std::vector<std::string> archives;        // file names, in the order in which a restore takes them
    std::vector<std::uint64_t> archive_bytes; // the sizes of these files
    // Whether every path of the catalog is in one of the archives.
    bool catalog_is_covered = false;

    double Seconds() const { return static_cast<double>(ended - started); }
};

struct Night {
    std::time_t moment = 0;            // its start, and its name
    bool complete = false;             // without ".incomplete"
    std::string path;                  // of its directory
    std::optional<NightRecord> record; // nothing when the run was killed, or run.json is unreadable
    bool has_archive = false;          // all its archives are there, and not being removed
    bool removed = false;              // retention removed its archives, or was about to
    std::time_t archive_gone = 0;      // when that was
    // Its record belongs to a night of another name: somebody copied or renamed the directory. It counts for nothing.
    bool foreign = false;

    // Whether it was judged to be a backup; a killed run may not have given it its name yet.
    bool HasGoodVerdict() const { return !foreign && record && nightly::IsGood(record->verdict); }
    bool IsGood() const { return complete && HasGoodVerdict(); }
    // A good name without a readable record: the disk or somebody damaged the night.
    bool IsBroken() const { return complete && !record; }
    std::string Name() const;
    std::string File(const std::string& name) const { return path + "/" + name; }
};

// The files of a night. Those of retry N have "retryN." in front.
namespace NightFiles {
constexpr const char* Archive = "archive.ctar";
constexpr const char* Catalog = "catalog";
constexpr const char* Missed = "missed";
constexpr const char* Log = "log";
constexpr const char* Page = "report.html";
constexpr const char* Record = "run.json";
constexpr const char* Begun = "begun.json"; // a record before there is one, for the case that the run is killed
constexpr const char* Sums = "archive.sum";
constexpr const char* Removed = "removed"; // why and when retention removed the archives
} // namespace NightFiles
constexpr const char* IncompleteSuffix = ".incomplete";
constexpr const char* RemovingSuffix = ".removing";

// "retry1.ctar", "retry1.catalog" and so on; the first attempt's files when `retry` is 0.
std::string AttemptFile(const char* name, int retry);
constexpr int MostRetries = 9;
// "archive.sum", "retry1.sum": the sums that belong to an archive.
std::string SumsFileOf(const std::string& archive);

// The archives of a night's attempts that exist, sound or not, in the order in which they were written.
std::vector<std::string> ExistingArchives(const Night& night);

// All nights in the directory, the oldest first. Throws Failure when it or one of them cannot be read.
std::vector<Night> ListNights(const std::string& directory);
// The same; but nights of another configuration are a failure: two servers in one directory would remove each other's.
std::vector<Night> ListOwnNights(const Config& config);

// A sentence for each night that somebody should look at: in the future, copied, or without a readable record; of each
// kind the first, and how many more.
std::vector<std::string> FindOddNights(const std::vector<Night>& nights, std::time_t now);

// The nights that count as backups and still have their archives, but for those in the future.
std::vector<const Night*> Restorable(const std::vector<Night>& nights);
// The sequence of a night that follows these.
std::uint64_t NextSequence(const std::vector<Night>& nights);
const Night* FindNight(const std::vector<Night>& nights, std::time_t moment);
// The newest night before `moment` that counts as a backup, with its archives or without; of one level if given.
const Night* LastGood(const std::vector<Night>& nights, std::time_t moment, std::optional<Level> level = {});
// The median duration of the last 30 nights of that level before `moment` that count as backups; 0 without any.
double UsualSeconds(const std::vector<Night>& nights, Level level, std::time_t moment);
// A night and those that it builds on, the full one first. Empty when one of them lacks its archives, or the chain does
// not end in a full night.
std::vector<const Night*> ChainOf(const std::vector<Night>& nights, const Night& night);
// The night with that name; "" for the newest that can be restored. Throws Failure.
const Night& NamedNight(const std::vector<Night>& nights, const std::string& name);

std::string EncodeRecord(const NightRecord& record);
std::optional<NightRecord> DecodeRecord(const std::string& text); // nothing unless EncodeRecord() could have written it
// The record in a file of the night; nothing when there is none, or none that can be understood. Throws Failure when
// the file cannot be read.
std::optional<NightRecord> ReadRecord(const Night& night, const char* name);

} // namespace nightly
