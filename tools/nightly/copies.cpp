#include "copies.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "ctar/digest.h"
#include "failure.h"

namespace nightly {

bool IsWithin(const std::set<std::string>& paths, std::string_view path) {
    if (paths.empty())
        return false;
    for (; !path.empty(); path = path.substr(0, path.rfind('/') == path.npos ? 0 : path.rfind('/')))
        if (paths.contains(std::string(path)))
            return true;
    return false;
}

std::vector<MissedLine> TrustedMissed(const Night& night) {
    const std::string file = night.File(NightFiles::Missed);
    if (night.HasGoodVerdict())
        RequireReadable(file);
    std::vector<MissedLine> lines = ReadMissed(file);
    if (night.HasGoodVerdict() && lines.size() < night.record->missed_lines)
        throw Failure(file + ": has fewer lines than the " + std::to_string(night.record->missed_lines) +
                      " that it had when the night was judged; nothing is removed until it is back, or the night is "
                      "moved away");
    return lines;
}

std::set<std::string> MissedPaths(const Night& night) {
    std::set<std::string> paths;
    for (const MissedLine& line : TrustedMissed(night))
        paths.insert(line.path);
    return paths;
}

namespace {

// Paths as hashes of 64 bits, eight bytes each: a server has millions. A collision is less likely than a broken disk.
std::uint64_t HashOf(std::string_view path) {
    return ctar::ShortDigest(path);
}

// What one night has.
struct Contained {
    std::vector<std::string> whole;     // saved in full in a good night
    std::vector<std::string> uncertain; // may be whole
    std::vector<std::string> partial;   // the night's list says that something is missing from them
    std::vector<std::string> unnamed;   // the catalogs may lack files of a directory among these
};

// The paths of a night's catalogs. Throws Failure when they name fewer than the night was judged by: what is not known
// to be somewhere else must not go.
std::vector<std::string> TrustedCatalog(const Night& night) {
    std::vector<std::string> paths = CatalogPaths(night.path);
    if (night.record && paths.size() < night.record->objects)
        throw Failure(
            night.path + ": its catalog names fewer than the " + std::to_string(night.record->objects) +
            " objects that it was judged by; nothing is removed until it is back, or the night is moved away");
    return paths;
}

// Whether the list of what a night missed tells which of its copies are in part. That of a failed night with several
// attempts, a base or a damaged archive may also name what one of the archives has in full.
bool ListTellsParts(const Night& night) {
    return night.HasGoodVerdict() ||
           (night.record && night.record->retries == 0 && !night.record->base && night.record->catalog_is_covered);
}

Contained ReadContained(const Night& night) {
    Contained contained;
    const std::set<std::string> missed = ListTellsParts(night) ? MissedPaths(night) : std::set<std::string>();
    const auto add = [&](std::vector<std::string> paths, std::vector<std::string>& sound) {
        for (std::string& path : paths)
            (IsWithin(missed, path) ? contained.partial : sound).push_back(std::move(path));
    };
    const auto add_uncertain = [&] {
        const std::vector<std::string> archives = ExistingArchives(night); // up to where they are damaged
        add(CoveredPaths(night.path, archives), contained.uncertain);
        contained.unnamed = EntriesOfDied(night.path, archives);
    };
    if (!night.HasGoodVerdict()) {
        add_uncertain();
        return contained;
    }
    std::vector<std::string> catalog = TrustedCatalog(night);
    if (!night.record->catalog_is_covered)
        catalog = CoveredPaths(night.path, night.record->archives);
    if (night.record->retries > 0) // one that died may have saved what its catalog does not name
        add_uncertain();
    add(std::move(catalog), contained.whole);
    return contained;
}

// A path may be in the catalogs of several attempts, and an entry besides.
std::uint64_t CountDistinct(const Contained& contained) {
    std::unordered_set<std::uint64_t> hashes;
    for (const std::vector<std::string>* const paths : {&contained.uncertain, &contained.partial})
        for (const std::string& path : *paths)
            hashes.insert(HashOf(path));
    return hashes.size();
}

// The search, from the newest night to the oldest.
struct Search {
    const std::vector<Night>& nights;
    const KeepRules& rules;
    std::time_t now;
    NightClock clock;
    std::vector<CopyCount> counts;
    std::unordered_set<std::uint64_t> whole = {};     // objects with a copy saved in full
    std::unordered_set<std::uint64_t> uncertain = {}; // objects with one that may be whole
    std::unordered_set<std::uint64_t> partial = {};   // objects with one in part
    std::unordered_set<std::uint64_t> parents = {};   // directories above objects
    // Directories with a copy that may have files that no catalog names: in a full night, and in a changed one.
    std::unordered_set<std::uint64_t> unnamed = {}, unnamed_changed = {};
    bool unnamed_is_doubtful = false; // for one of these at least
    // Objects whose newest copy is in a night of long ago, and that night.
    std::unordered_multimap<std::string, std::size_t> doubtful = {};

    void Count(std::size_t night, const std::string& path) {
        if (counts[night].objects++ == 0)
            counts[night].example = path;
    }
    bool IsOld(std::size_t night) const { return clock.IsLongAgo(nights[night].moment, rules.forget_after); }
    void Found(std::size_t night, const std::string& path) {
        if (IsOld(night))
            doubtful.emplace(path, night);
        else
            Count(night, path);
    }
    bool HasCopy(std::uint64_t object) const {
        return whole.contains(object) || uncertain.contains(object) || partial.contains(object);
    }
    bool Counts(std::size_t night) const { return !nights[night].foreign && nights[night].moment <= now; }
};

// Calls `visit` with the directories above a path, the nearest one first, until it returns false.
template <typename Visit>
void VisitParents(std::string_view path, Visit visit) {
    for (std::size_t slash = path.rfind('/'); slash != path.npos && slash > 0; slash = path.rfind('/')) {
        path = path.substr(0, slash);
        if (!visit(path))
            return;
    }
}

// A directory that is an entry of a failed night is no object of its own where a night has what is in it.
void LearnParents(Search& search, std::string_view path) {
    VisitParents(path, [&search](std::string_view parent) { return search.parents.insert(HashOf(parent)).second; });
}

// Of each object, the newest copy saved in full stays, a newer one that may be whole, and a still newer one in part. So
// does the newest one of each directory with files that no catalog may name: no other copy is known to have them. One
// of a changed night has only what had changed, and replaces none of a full one.
void FindCopies(Search& search, std::size_t night, const Contained& contained) {
    for (const std::vector<std::string>* const paths : {&contained.whole, &contained.uncertain, &contained.partial})
        for (const std::string& path : *paths)
            LearnParents(search, path);
    for (const std::string& path : contained.whole)
        if (search.whole.insert(HashOf(path)).second)
            search.Found(night, path);
    const auto is_open = [&search](std::uint64_t hash) {
        return !search.whole.contains(hash) && !search.parents.contains(hash);
    };
    for (const std::string& path : contained.uncertain)
        if (const std::uint64_t hash = HashOf(path); is_open(hash) && search.uncertain.insert(hash).second)
            search.Found(night, path);
    for (const std::string& path : contained.partial)
        if (const std::uint64_t hash = HashOf(path);
            is_open(hash) && !search.uncertain.contains(hash) && search.partial.insert(hash).second)
            search.Found(night, path);
    const std::optional<NightRecord>& record = search.nights[night].record;
    auto& unnamed = record && record->level == Level::Full ? search.unnamed : search.unnamed_changed;
    for (const std::string& path : contained.unnamed)
        if (const std::uint64_t hash = HashOf(path); unnamed.insert(hash).second && search.parents.contains(hash)) {
            search.Found(night, path);
            search.unnamed_is_doubtful |= search.IsOld(night);
        }
}

// Looks for doubtful objects in what the nights of the last `forget_after` saw on the server.
void FindSeen(Search& search) {
    for (std::size_t i = search.nights.size(); i-- > 0 && !search.doubtful.empty();) {
        // A night that lies in the future ran, too, under a clock that was wrong.
        if (search.nights[i].foreign || search.IsOld(i))
            continue;
        const Night& night = search.nights[i];
        std::set<std::string> seen = MissedPaths(night);
        const auto count_seen = [&](const std::string& path) {
            const auto [first, last] = search.doubtful.equal_range(path);
            for (auto found = first; found != last; ++found)
                search.Count(found->second, path);
            search.doubtful.erase(first, last);
        };
        // A path that was seen, but that no archive is known to have, may be in a directory with unnamed files.
        const auto count_parents = [&](const std::string& path) {
            if (search.unnamed_is_doubtful && !search.HasCopy(HashOf(path)))
                VisitParents(path, [&](std::string_view parent) {
                    count_seen(std::string(parent));
                    return !search.doubtful.empty();
                });
        };
        for (const std::string& path : TrustedCatalog(night)) {
            count_seen(path);
            count_parents(path);
        }
        std::for_each(seen.begin(), seen.end(), count_parents);
        std::vector<std::string> within;
        for (const auto& [path, where] : search.doubtful)
            if (IsWithin(seen, path))
                within.push_back(path);
        std::for_each(within.begin(), within.end(), count_seen);
    }
}

// The nights in the order in which they ran, the last one first. Names tell the same, unless the clock has jumped.
std::vector<std::size_t> LatestFirst(const std::vector<Night>& nights) {
    std::vector<std::size_t> order(nights.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&nights](std::size_t one, std::size_t other) {
        const auto rank = [&nights](std::size_t i) { return nights[i].record ? nights[i].record->sequence : 0; };
        return rank(one) != rank(other) ? rank(one) > rank(other) : one > other;
    });
    return order;
}

} // namespace

NightClock ClockOf(const std::vector<Night>& nights, std::time_t now) {
    std::vector<std::time_t> moments;
    for (const std::size_t i : LatestFirst(nights))
        moments.push_back(nights[i].moment);
    std::reverse(moments.begin(), moments.end());
    return {now, moments};
}

std::vector<CopyCount> CountNewestCopies(const std::vector<Night>& nights, const KeepRules& rules, std::time_t now) {
    Search search{nights, rules, now, ClockOf(nights, now), std::vector<CopyCount>(nights.size())};
    for (const std::size_t i : LatestFirst(nights))
        if (nights[i].has_archive && search.Counts(i)) {
            const Contained contained = ReadContained(nights[i]);
            if (!nights[i].HasGoodVerdict())
                search.counts[i].contained = CountDistinct(contained);
            FindCopies(search, i, contained);
        }
    FindSeen(search);
    return search.counts;
}

} // namespace nightly
