// Run-wide settings: written by option parsing in the main thread before any worker exists, read-only afterwards. The
// streams are written to by their users but never replaced after parsing. The drivers read this record; what is below
// them gets the one or two settings it needs as parameters.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "commands.h"
#include "path_file.h"
#include "resources.h"
#include "socket.h"

struct Settings {
    std::optional<std::string> server;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::string> backup_path;  // archive to write; selects backup mode
    std::optional<std::string> restore_path; // archive to read, "-" for standard input; selects restore mode
    Stream catalog;                          // paths of saved files
    Stream include;
    Stream exclude;
    Stream list;                        // selects list mode
    Stream not_backed_up;               // paths of objects that were not saved
    std::optional<std::int64_t> cutoff; // --date: epoch; older files are left out
    SaveOptions save;
    std::uint64_t max_block_size = UINT64_MAX; // bytes; a larger directory is saved object by object
    bool threading = true;
    TransportOptions transport; // its verbosity is that of the run
    int test_count = 0;         // above 0: log in, and nothing more

    int Verbosity() const { return transport.verbosity; }
    // A restore path switches wild cards off in both path files, whatever the run does.
    WildCards PathFileRule() const { return restore_path ? WildCards::Ignore : WildCards::Match; }
};
