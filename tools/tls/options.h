// The command line.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "server_connection.h"

namespace tls {

enum ExitStatus { Done = 0, Trouble = 1, BadUsage = 2 };

struct Options {
    ServerSettings server;
    TlsSettings tls;
    std::string listen;     // "" for the default
    std::string prometheus; // file for gauges, "" for none
    bool accept_missing_close_notify = false;
    bool check = false;
    bool json = false;
    bool verbose = false;
    std::vector<std::string> command; // to run with the relay beside it; empty: serve
};

// Fills the options. Returns an exit status when the program has nothing more to do: it printed help or an error.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

} // namespace tls
