// What the commands print: records for programs (--json), and tables for people.

#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace nightly {

using Json = nlohmann::ordered_json;

// Prints one array of records. Bytes that are not UTF-8 become U+FFFD, and all but ASCII is escaped.
void PrintRecords(const Json& records);

// Prints rows with their columns in line. Columns whose heading begins with ">" are numbers and end in line.
void PrintTable(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows);

// Printable ASCII, "?" for anything else.
std::string Shown(const std::string& bytes);

} // namespace nightly
