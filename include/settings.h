// Run-wide settings: written by option parsing in the main thread before any worker exists, read-only
// afterwards. The streams are written to by their users but never replaced after parsing.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "support.h"

struct Settings {
    std::optional<std::string> server;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::string> backup_path;  // archive to write; selects backup mode
    std::optional<std::string> restore_path; // archive to read, "-" for standard input; selects restore mode, and
                                             // with it the path file rule that lines with wild cards do not count
    Stream catalog;                          // paths of saved files
    Stream include;
    Stream exclude;
    Stream list;          // selects list mode
    Stream not_backed_up; // paths of objects that were not saved
    bool cutoff = false;  // --date was given; the fields below then hold its instant
    std::int64_t cutoff_time = 0;
    std::string cutoff_date;                   // "mm/dd/yy", local
    std::string cutoff_clock;                  // "hh:mm:ss", local
    std::uint64_t max_block_size = UINT64_MAX; // bytes; a larger directory is saved object by object
    bool precheck = true;
    bool threading = true;
    int timeout = 8;                 // minutes of silence that a transfer survives, 1 to 99999
    std::optional<std::string> wait; // seconds as typed, or "*NOMAX"; without it 120
    int verbosity = 0;
    int test_count = 0; // above 0: log in, and nothing more
};

extern Settings RunSettings;

// Facts about the process, recorded at start-up.
extern int StderrIsTerminal;
extern int PageSize; // bytes
