// Credentials of the run: "username:where:key" with where one of here, env, fd and file.

#pragma once

#include <optional>
#include <string>

struct Credentials {
    std::string user;
    std::string password;
};

// Reads the argument. Returns nothing after logging why. A descriptor or a file is read once, at most 4095 bytes, and
// the first line counts.
std::optional<Credentials> ReadCredentials(const char* argument);

// Overwrites a passphrase given in the argument itself, so that process listings do not show it.
void HidePassphrase(char* argument);
