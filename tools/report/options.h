// The command line.

#pragma once

#include <optional>
#include <string>

namespace report {

enum ExitStatus { Done = 0, Trouble = 1, BadUsage = 2, RunNotComplete = 3 };

struct Options {
    std::string log; // "" for standard input
    std::string html, json, prometheus, against;
    std::string server, night, archive; // names to show; the archive is also the file to watch, "" without one
    std::string labels;                 // of each gauge, as the collector reads them: server="as400",schedule="night"
    double every = 0;                   // seconds, 0 for never
    bool fail = false;
    bool no_log = false;
    bool quiet = false;
};

// Fills the options. Returns an exit status when the program has nothing more to do: it printed help or an error.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

} // namespace report
