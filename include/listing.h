// The server's directory listings: one line of the Unix long form taken apart. Pure text work, any thread.

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
    std::string_view leftover; // text behind the name or the link's target that means nothing
};

struct ListingFailure {
    const char* what;      // "can't parse date" and its kin
    std::string_view text; // the line, or what of it is at fault
};

// Takes apart a line, without its newline but with its carriage return, such as
//     drwx---rwx   1 QPGMR    0          20480 Sep 24 18:16 TIMESTAMP
// A date with a time of day belongs to the year of `now`, or to the one before when its month is yet to come.
// Gives nothing on success, else what failed; the entry is then not to be used.
std::optional<ListingFailure> ParseListingLine(std::string_view line, const std::tm& now, ListingEntry& entry);
