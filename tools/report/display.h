// Makes bytes from the log and numbers fit to be shown. Names come from the server and may contain any byte.

#pragma once

#include <string>
#include <string_view>

namespace report {

// Valid UTF-8: each invalid byte becomes U+FFFD, and so does each control character and each character that changes the
// direction of writing, which could disguise a name.
std::string VisibleText(std::string_view bytes);

// The same, escaped for HTML text and quoted attributes.
std::string HtmlText(std::string_view bytes);

// Printable ASCII, with "?" for any other character: each takes one column on every terminal.
std::string TerminalText(std::string_view bytes);

std::string ShowShare(double share); // "56.1 %"; what is not 0 is at least "0.1 %"
// The unit of all amounts in a column, as the greatest of them needs it.
struct ColumnUnit {
    const char* name;
    std::string (*show)(double amount); // bytes or seconds, without the unit
};
const ColumnUnit& BytesUnit(double greatest); // "B", "KB", "MB" or "GB"
const ColumnUnit& TimeUnit(double greatest);  // "s", "min:s" or "h:min:s"

std::string ShowBytes(double bytes);      // "6.864 KB", in powers of 1000
std::string ShowDuration(double seconds); // "0.021 s", "47 s", "12:05", "3:00:09"
std::string ShowTime(double time);        // seconds since a midnight: "14:33:50"

} // namespace report
