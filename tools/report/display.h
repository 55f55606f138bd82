// Foreign bytes and figures made fit for where they are shown. Names come from the server and may hold anything.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Valid UTF-8: each byte that is none becomes U+FFFD. Control characters and those that turn the direction of writing,
// which could disguise a name, do so as well.
std::string VisibleText(std::string_view bytes);

// The same with the characters replaced that mean something to HTML, in text and in quoted attributes.
std::string HtmlText(std::string_view bytes);

// Printable ASCII alone, "?" for each other character: one column each on every terminal.
std::string TerminalText(std::string_view bytes);

std::string ShowCount(std::uint64_t objects); // "1 object"
std::string ShowBytes(double bytes);          // "6.864 KB": by thousands
std::string ShowDuration(double seconds);     // "0.021 s", "47 s", "12:05", "3:00:09"
std::string ShowTime(double time);            // seconds since a midnight: "14:33:50"
