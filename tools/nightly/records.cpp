#include "records.h"

#include <algorithm>
#include <cstdio>

#include "report/display.h"

namespace nightly {

void PrintRecords(const Json& records) {
    std::printf("%s\n", records.dump(2, ' ', true, Json::error_handler_t::replace).c_str());
}

void PrintTable(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::vector<std::string>> lines{headings};
    std::vector<bool> is_number;
    for (std::string& heading : lines.front()) {
        is_number.push_back(heading.starts_with('>'));
        heading.erase(0, is_number.back() ? 1 : 0);
    }
    lines.insert(lines.end(), rows.begin(), rows.end());
    std::vector<std::size_t> widths(headings.size());
    for (const std::vector<std::string>& line : lines)
        for (std::size_t i = 0; i < line.size(); ++i)
            widths[i] = std::max(widths[i], line[i].size());
    for (const std::vector<std::string>& line : lines) {
        std::string text;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const std::string padding(widths[i] - line[i].size(), ' ');
            text += (i == 0 ? "" : "  ") + (is_number[i] ? padding + line[i] : line[i] + padding);
        }
        text.resize(text.find_last_not_of(' ') + 1);
        std::printf("%s\n", text.c_str());
    }
}

std::string Shown(const std::string& bytes) {
    return report::TerminalText(bytes);
}

} // namespace nightly
