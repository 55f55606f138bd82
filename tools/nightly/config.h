// The configuration of one server, /etc/vondral/NAME.toml. vondral-nightly(1) describes the keys.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nightly {

struct KeepRules {
    std::uint64_t last = 7, daily = 14, weekly = 8, monthly = 12;
    std::int64_t records = std::int64_t{2} * 365 * 86400;  // seconds that the small files of a night are kept
    std::int64_t forget_after = std::int64_t{400} * 86400; // seconds after an object was last seen on the server
};

struct LevelRules {
    std::vector<int> full_days;       // weekdays of full nights, 0 is Sunday; empty: every night is full
    std::int64_t margin = 900;        // seconds before the start of the last good night
    std::optional<double> max_shrink; // of changed nights; absent: as of full ones
};

struct Hooks {
    std::vector<std::string> on_start, on_success, on_failure; // shell commands
    std::int64_t limit = 600;                                  // seconds for each
};

struct DrillPlan {
    std::string server, library, as;
    std::string pin; // of the server's key, as in TlsRules
};

struct TlsRules {
    std::string ca, pin; // as vondral-tls takes them; "" for none
};

struct Config {
    std::string name;                      // of the server's configuration
    std::string server, login, passphrase; // the passphrase as written
    std::string timezone = "UTC";          // of the server's clock
    bool knows_timezone = false;           // it is configured
    std::string directory;
    std::string include, exclude; // paths, "" for none
    bool precheck = true;
    std::int64_t wait = 120;  // seconds
    std::int64_t timeout = 8; // minutes
    LevelRules level;
    KeepRules keep;
    double tolerate = 0; // share of files
    double max_shrink = 0.20;
    std::uint64_t retries = 0;
    std::int64_t retry_wait = 1800; // seconds
    Hooks hooks;
    std::optional<DrillPlan> drill;
    std::optional<TlsRules> tls;
    std::string metrics; // path, "" for none
};

// Reads DIRECTORY/NAME.toml. Throws Failure with the file, line and column of the first mistake.
Config ReadConfig(const std::string& config_directory, const std::string& name);

// All servers that have a configuration, in alphabetical order.
std::vector<std::string> ListServers(const std::string& config_directory);

// The effective values, as a configuration file.
std::string ShowConfig(const Config& config);

// The file that holds the passphrase. Throws Failure when it cannot be read or others can read it.
std::string PassphraseFile(const Config& config);

} // namespace nightly
