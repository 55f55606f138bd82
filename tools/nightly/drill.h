// The drill: restores one library under a scratch name on a spare server, and remembers when that last worked.

#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "config.h"
#include "disk.h"

namespace nightly {

struct DrillRecord { // DIRECTORY/drill.json
    std::time_t moment = 0;
    bool good = false;
    std::string night;  // that was restored from
    double seconds = 0; // it took
};

std::optional<DrillRecord> ReadDrill(const std::string& directory);

// Runs a drill from the newest night that can be restored and writes its record. Returns Good, or Bad after saying on
// standard error what went wrong. Throws Failure.
int RunDrill(Disk& disk, const Config& config, std::time_t now);

} // namespace nightly
