// An index over all nights: which night has which path, and how its entries differ. It is a cache in
// DIRECTORY/history.db that can be made anew from the nights at any time, and no decision about keeping or removing
// anything rests on it.
//
// The nights that count as backups are two series, full and changed ones; all others are a third. A path that is in
// consecutive nights of a series takes one row, however many nights these are.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "database.h"
#include "night.h"

namespace nightly {

// One night that has a path.
struct FoundCopy {
    std::string path;
    const Night* night = nullptr;
    bool in_part = false;    // the night missed it, or a part of what contains it
    std::string entry;       // of the archive: the path itself or a directory above; "" when not known
    std::int64_t bytes = -1; // of the entry's data; -1 when not known
    std::string digest;      // SHA-256 of the entry's data
    std::string archive;     // path of the file; "" when retention removed it
};

class History {
public:
    // Opens the history of a directory and enters the nights that it lacks. A history that does not fit the nights, or
    // cannot be read, is made anew. Throws Failure. `nights` must outlive it.
    History(const std::string& directory, const std::vector<Night>& nights);
    ~History();

    // Calls `process` for each night that has a path of which `matches` is true: paths in byte order, nights ascending.
    void Find(const std::function<bool(const std::string& path)>& matches,
              const std::function<void(const FoundCopy&)>& process) const;

    // Makes the history of a directory anew.
    static void Rebuild(const std::string& directory, const std::vector<Night>& nights);

private:
    std::unique_ptr<Database> database_;
    const std::vector<Night>& nights_;
};

} // namespace nightly
