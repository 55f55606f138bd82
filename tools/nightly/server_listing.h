// What a server would save, found by listing only: with runs of `vondral -l`, one
// for each level of directories.

#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

#include "config.h"

namespace nightly {

struct ListedTotals {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0; // as listed
};

struct ServerListing {
    // By what is directly below the root; the libraries one by one.
    std::map<std::string, ListedTotals> totals;
    std::time_t newest = 0; // modification time in the server's zone, 0 when nothing was listed
    std::string newest_path;
    int failed = 0; // listings that failed
};

// `scratch` is a directory for temporary files. Throws Failure when vondral cannot be run.
ServerListing ListServer(const Config& config, const std::string& scratch);

} // namespace nightly
