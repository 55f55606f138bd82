// Which night has the newest good copy of which object, read from the catalogs and archives themselves.

#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "config.h"
#include "night.h"

namespace nightly {

struct CopyCount {
    std::uint64_t objects = 0;
    std::string example; // one of them
};

// For each night, how many objects have their newest good copy in it and are not forgotten. An object is a path of a
// catalog that an archive contains. A copy is good in a night that counts as a backup and saved the object in full; an
// object without any such copy has its newest copy of any kind instead. An object is forgotten when no night of the
// last `forget_after` has seen it on the server. Nights in the future and foreign ones count for nothing.
//
// Reads the catalogs of the nights that have archives; those of the others only for objects about to be forgotten.
// Throws Failure when one of them cannot be read.
std::vector<CopyCount> CountNewestCopies(const std::vector<Night>& nights, const KeepRules& rules, std::time_t now);

} // namespace nightly
