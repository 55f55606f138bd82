// Which night has the newest copy of which object, read from the catalogs and archives themselves.

#pragma once

#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "config.h"
#include "judge.h"
#include "night.h"
#include "retention.h"

namespace nightly {

// What a night missed, in whole or in part. Throws Failure when a good night's list has lost lines.
std::vector<MissedLine> TrustedMissed(const Night& night);
std::set<std::string> MissedPaths(const Night& night);
// Whether the path is one of those, or below one.
bool IsWithin(const std::set<std::string>& paths, std::string_view path);

// Tells how long ago nights were, by the order in which they ran.
NightClock ClockOf(const std::vector<Night>& nights, std::time_t now);

struct CopyCount {
    std::uint64_t objects = 0;
    std::string example;         // one of them
    std::uint64_t contained = 0; // all that the archives of a night that is not good contain, each once
};

// For each night, how many objects have their newest copy in it and are not forgotten. An object is a path of a catalog
// that an archive contains. A night that counts as a backup and saved the object in full has a good copy; the newest of
// these counts, and so does a newer copy in any other night, which may be whole, and a still newer one that its night
// lists as incomplete. An object is forgotten when no night of the last `forget_after` has seen it on the server.
// Nights in the future and foreign ones count for nothing.
//
// The catalogs may lack files of a directory that an attempt saved before it died. Its entry is an object, too, that
// only the next such entry replaces; that of a changed night replaces none of a full one.
//
// Reads the catalogs of the nights that have archives; those of the others only for objects about to be forgotten.
// Throws Failure when one of them cannot be read.
std::vector<CopyCount> CountNewestCopies(const std::vector<Night>& nights, const KeepRules& rules, std::time_t now);

} // namespace nightly
