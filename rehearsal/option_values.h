// Parses the values of vondral-rehearsal's options. Pure functions, for any thread; all of them throw UsageError.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "rehearsal.h"

namespace rehearsal {

struct UsageError {
    std::string text;
};

std::uint16_t ParsePort(std::string_view text);
std::string ParseAddress(std::string_view text); // IPv4
std::string ParsePath(std::string_view text);    // of an object on the server: absolute

// A number of bytes, 1 or more, or of k (1024), M or G bytes. Upper and lower case are the same.
std::uint64_t ParseBytes(std::string_view text);

// KIND COMMAND [NAME=VALUE]..., for example: close RCMD SAV nth=0 bytes=10
//
// KIND is one of Fault::Kind in lower case ("data-close"). COMMAND is the start of a command line, or "greeting". The
// names are those of Fault's fields, and "pause" for pause_ms; each kind accepts only those that it uses. COMMAND and
// VALUE may be between double quotes, in which \r, \n, \" and \\ have their usual meaning.
Fault ParseFault(std::string_view text);

} // namespace rehearsal
