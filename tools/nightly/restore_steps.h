// What a restore brings back: from which archives, in which order, with which commands. It asks the program's own
// matching and command tables.

#pragma once

#include <string>
#include <vector>

#include "config.h"
#include "night.h"

namespace nightly {

struct RestoreRules {
    std::string include, exclude; // path files, "" for none
};

// One command to the server.
struct RestoreStep {
    std::string archive; // path of the file
    std::string entry;
    std::string path;    // what is restored of it
    std::string to;      // where to, "" for the same place
    std::string command; // without what the client adds around it
    std::string fault;   // why it will fail; "" when nothing is known against it
    std::string success; // what the log says when it went well, after "Restore Success: "
};

struct RestorePlan {
    std::vector<const Night*> chain;   // the full night first
    std::vector<std::string> archives; // that contain something wanted, in order
    std::vector<RestoreStep> steps;
    std::string authorities;            // the command that restores them at the end, if security data is part of it
    std::vector<std::string> mistakes;  // in the path files
    std::vector<std::string> unmatched; // lines of the include file that bring nothing back
    // Paths that the restore brings back, though the newest full night no longer found them on the server.
    std::vector<std::string> returning;
    const Night* newest_full = nullptr;                // the night that was asked for that
    bool security_data = false, configuration = false; // part of it
};

// Throws Failure when the night cannot be restored, or a path file cannot be read.
RestorePlan PlanRestore(const std::vector<Night>& nights, const Night& night, const RestoreRules& rules);

// One run of `vondral -r`.
struct RestoreRun {
    std::string server; // "" for the configuration's
    std::string archive;
    RestoreRules rules;
    std::string log; // file to write, shown on standard output meanwhile
};
struct RestoreOutcome {
    int status = 0;
    std::vector<std::string> successes; // what the log names after "Restore Success: "
};
RestoreOutcome RunRestore(const Config& config, const RestoreRun& run);

} // namespace nightly
