// The server's directory listings: parsing one line of the Unix long form. Pure text work, any thread.

#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "tree.h"

// One line. The views point into it.
struct ListingEntry {
    std::uint32_t mode = 0; // st_mode: a directory or, links included, a regular file, with permission bits
    std::uint64_t size = 0; // bytes; 0 when the field is no number
    CalendarTime mtime;
    std::string_view name;     // without a slash
    std::string_view leftover; // meaningless text after the name or the link's target
};

struct ListingFailure {
    const char* what;      // such as "can't parse date"
    std::string_view text; // the line, or the part of it that is wrong
};

// Parses a line, without its newline but with its carriage return, such as
//     drwx---rwx   1 QPGMR    0          20480 Sep 24 18:16 TIMESTAMP
// A date with a time of day is in the year of `now`, or in the one before when its month is still to come. Returns
// nothing on success, else what failed; the entry is then not to be used.
std::optional<ListingFailure> ParseListingLine(std::string_view line, const std::tm& now, ListingEntry& entry);
