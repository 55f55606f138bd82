#include "history.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include <sys/stat.h>
#include <unistd.h>

#include "contents.h"
#include "copies.h"
#include "judge.h"
#include "text.h"

namespace nightly {

namespace {

constexpr char Schema[] = "CREATE TABLE nights(moment INTEGER PRIMARY KEY, series INTEGER, position INTEGER,"
                          " fingerprint TEXT);"
                          "CREATE TABLE positions(series INTEGER PRIMARY KEY, last INTEGER);"
                          "CREATE TABLE paths(id INTEGER PRIMARY KEY, path BLOB UNIQUE);"
                          // The nights of a series from `first` to `last` have the path.
                          "CREATE TABLE presence(path INTEGER, series INTEGER, first INTEGER, last INTEGER,"
                          " PRIMARY KEY(path, series, first)) WITHOUT ROWID;"
                          "CREATE TABLE entries(path INTEGER, moment INTEGER, archive TEXT, size INTEGER, digest TEXT,"
                          " PRIMARY KEY(path, moment, archive)) WITHOUT ROWID;"
                          "CREATE INDEX nights_by_position ON nights(series, position);"
                          "CREATE TABLE current(path INTEGER PRIMARY KEY);"
                          "PRAGMA user_version = 1;";

std::string PathOf(const std::string& directory) {
    return directory + "/history.db";
}

// Changes whenever what the history has from the night changes.
std::string FingerprintOf(const Night& night) {
    std::string text = night.complete ? "complete" : "incomplete";
    for (const char* const name : {NightFiles::Catalog, NightFiles::Record, NightFiles::Sums}) {
        struct stat status {};
        if (::stat(night.File(name).c_str(), &status) == 0)
            text += FormatText(" %lld:%lld.%09ld", static_cast<long long>(status.st_size),
                               static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec);
        else
            text += " -";
    }
    return text;
}

bool IsIndexed(const Night& night) {
    return night.record && !night.foreign;
}

int SeriesOf(const Night& night) {
    constexpr int others = 2;
    return night.IsGood() ? static_cast<int>(night.record->level) : others;
}

// For entering nights: statements, and the numbers of all paths.
struct Writer {
    Statement add_path, add_entry, clear_current, add_current;
    std::unordered_map<std::string, std::int64_t> ids;

    explicit Writer(const Database& database)
        : add_path(database, "INSERT INTO paths VALUES(?, ?)"),
          add_entry(database, "INSERT OR REPLACE INTO entries VALUES(?, ?, ?, ?, ?)"),
          clear_current(database, "DELETE FROM current"),
          add_current(database, "INSERT OR IGNORE INTO current VALUES(?)") {
        Statement read(database, "SELECT id, path FROM paths");
        while (read.Step())
            ids.emplace(read.Text(1), read.Number(0));
    }

    std::int64_t IdOf(const std::string& path) {
        const auto [found, is_new] = ids.try_emplace(path, static_cast<std::int64_t>(ids.size()) + 1);
        if (is_new)
            add_path.Bind(0, found->second).Bind(1, path).Run();
        return found->second;
    }
};

// Without archives, only a catalog that was covered by them tells what the night had.
std::vector<std::string> PathsOf(const Night& night) {
    if (night.record->catalog_is_covered)
        return CatalogPaths(night.path);
    return night.has_archive ? CoveredPaths(night.path, night.record->archives) : std::vector<std::string>{};
}

// The entries that a night's sums name, as far as they can be read.
std::vector<EntryFacts> ReadableSums(const std::string& path) {
    std::vector<EntryFacts> entries;
    try {
        ReadSums(path, entries);
    } catch (const Failure&) {
        // What is missing costs only sizes and digests.
    }
    return entries;
}

void AddEntries(Writer& writer, const Night& night) {
    for (const std::string& archive : night.record->archives)
        for (const EntryFacts& entry : ReadableSums(night.File(SumsFileOf(archive))))
            writer.add_entry.Bind(0, writer.IdOf(entry.path))
                .Bind(1, night.moment)
                .Bind(2, archive)
                .Bind(3, entry.size)
                .Bind(4, entry.digest)
                .Run();
}

// The next position of a series.
std::int64_t NextPosition(const Database& database, int series) {
    Statement advance(database, "INSERT INTO positions VALUES(?, 1) ON CONFLICT(series) DO UPDATE SET last = last + 1");
    advance.Bind(0, series).Run();
    Statement read(database, "SELECT last FROM positions WHERE series = ?");
    read.Bind(0, series).Step();
    return read.Number(0);
}

void AddNight(const Database& database, Writer& writer, const Night& night) {
    const int series = SeriesOf(night);
    const std::int64_t position = NextPosition(database, series);
    writer.clear_current.Run();
    for (const std::string& path : PathsOf(night))
        writer.add_current.Bind(0, writer.IdOf(path)).Run();
    AddEntries(writer, night);
    Statement extend(database, "UPDATE presence SET last = ?1 WHERE series = ?2 AND last = ?1 - 1"
                               " AND path IN (SELECT path FROM current)");
    extend.Bind(0, position).Bind(1, series).Run();
    Statement begin(database, "INSERT INTO presence SELECT path, ?2, ?1, ?1 FROM current WHERE NOT EXISTS"
                              " (SELECT 1 FROM presence WHERE presence.path = current.path AND series = ?2"
                              " AND last = ?1)");
    begin.Bind(0, position).Bind(1, series).Run();
    Statement add(database, "INSERT INTO nights VALUES(?, ?, ?, ?)");
    add.Bind(0, night.moment).Bind(1, series).Bind(2, position).Bind(3, FingerprintOf(night)).Run();
}

bool HasSchema(const Database& database) {
    Statement version(database, "PRAGMA user_version");
    return version.Step() && version.Number(0) == 1;
}

// Enters the nights that the history lacks. Returns false when it does not fit the nights and has to be made anew.
bool Update(Database& database, const std::vector<Night>& nights) {
    Transaction transaction(database);
    std::map<std::int64_t, std::string> known;
    Statement read(database, "SELECT moment, fingerprint FROM nights");
    while (read.Step())
        known[read.Number(0)] = read.Text(1);
    const std::int64_t newest = known.empty() ? INT64_MIN : known.rbegin()->first;
    std::vector<const Night*> fresh;
    for (const Night& night : nights) {
        if (!IsIndexed(night))
            continue;
        const auto found = known.find(night.moment);
        if (found == known.end() ? night.moment < newest : found->second != FingerprintOf(night))
            return false;
        if (found == known.end())
            fresh.push_back(&night);
        else
            known.erase(found);
    }
    if (fresh.empty() && known.empty())
        return true;
    Writer writer(database);
    for (const Night* const night : fresh)
        AddNight(database, writer, *night);
    Statement forget(database, "DELETE FROM nights WHERE moment = ?");
    Statement forget_entries(database, "DELETE FROM entries WHERE moment = ?");
    for (const auto& [moment, fingerprint] : known) {
        forget.Bind(0, moment).Run();
        forget_entries.Bind(0, moment).Run();
    }
    transaction.Commit();
    return true;
}

} // namespace

History::History(const std::string& directory, const std::vector<Night>& nights) : nights_(nights) {
    try {
        database_ = std::make_unique<Database>(PathOf(directory));
        if (HasSchema(*database_) && Update(*database_, nights))
            return;
    } catch (const DatabaseFailure&) {
        // A damaged history is worth no more than none.
    }
    Rebuild(directory, nights);
    database_ = std::make_unique<Database>(PathOf(directory));
}

History::~History() = default;

// Made beside the old one, which others may be reading, and put in its place when it is complete.
void History::Rebuild(const std::string& directory, const std::vector<Night>& nights) {
    const std::string path = PathOf(directory) + ".new" + std::to_string(::getpid());
    ::unlink(path.c_str());
    try {
        Database database(path);
        // Nothing is lost with a new file that was not finished.
        database.Execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;");
        database.Execute(Schema);
        Update(database, nights);
    } catch (...) { // on a full disk each try would leave another one
        ::unlink(path.c_str());
        throw;
    }
    if (::rename(path.c_str(), PathOf(directory).c_str()) != 0)
        throw Failure(ctar::WithReason(path));
}

namespace {

// The entry of a night that contains a path: the path itself or the nearest directory above.
void FindEntry(Statement& find_entry, FoundCopy& copy) {
    for (std::string path = copy.path; !path.empty(); path.resize(path.rfind('/') == path.npos ? 0 : path.rfind('/'))) {
        find_entry.Bind(0, path).Bind(1, copy.night->moment);
        bool found = false;
        while (find_entry.Step()) { // the last archive wins: a retry saved it anew
            found = true;
            copy.entry = path;
            copy.bytes = find_entry.Number(1);
            copy.digest = find_entry.Text(2);
            const std::string archive = copy.night->File(find_entry.Text(0));
            copy.archive = copy.night->has_archive ? archive : "";
        }
        if (found)
            return;
    }
    // The archives of a killed run were never read for their entries.
    if (copy.night->has_archive && copy.night->record && copy.night->record->archives.size() == 1)
        copy.archive = copy.night->File(copy.night->record->archives.front());
}

// What a night missed, read once; nothing when its list is damaged or not there any more.
const std::optional<std::set<std::string>>&
MissedIn(const Night& night, std::map<std::time_t, std::optional<std::set<std::string>>>& known) {
    const auto [found, is_new] = known.try_emplace(night.moment);
    try {
        if (is_new)
            found->second = night.record->missing > 0 ? MissedPaths(night) : std::set<std::string>();
    } catch (const Failure&) {
        // Its copies may be whole or not.
    }
    return found->second;
}

} // namespace

void History::Find(const std::function<bool(const std::string& path)>& matches,
                   const std::function<void(const FoundCopy&)>& process) const {
    std::map<std::string, std::int64_t> ids;
    Statement paths(*database_, "SELECT id, path FROM paths");
    while (paths.Step())
        if (std::string path = paths.Text(1); matches(path))
            ids.emplace(std::move(path), paths.Number(0));
    Statement find_nights(*database_, "SELECT moment FROM presence JOIN nights ON nights.series = presence.series"
                                      " AND position BETWEEN first AND last WHERE path = ? ORDER BY moment");
    Statement find_entry(*database_, "SELECT archive, size, digest FROM entries WHERE path ="
                                     " (SELECT id FROM paths WHERE path = ?) AND moment = ? ORDER BY archive");
    std::map<std::time_t, std::optional<std::set<std::string>>> missed;
    for (const auto& [path, id] : ids) {
        find_nights.Bind(0, id);
        while (find_nights.Step()) {
            FoundCopy copy;
            copy.path = path;
            copy.night = FindNight(nights_, find_nights.Number(0));
            if (copy.night == nullptr)
                continue;
            FindEntry(find_entry, copy);
            const std::optional<std::set<std::string>>& gaps = MissedIn(*copy.night, missed);
            copy.in_part = !gaps || IsWithin(*gaps, path);
            process(copy);
        }
    }
}

} // namespace nightly
