// Splits a stream of pieces into lines, in bounded memory: the end of an overlong line is dropped.

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace report {

constexpr std::size_t LongestLogLine = 8192; // bytes kept of a line: more than a name and its prefixes can have

struct LineSplitter {
    std::string partial; // the beginning of a line that has no line end yet
};

using LineHandler = std::function<void(std::string_view line)>;

// Calls the handler for each line that ends in the piece, without its line end.
void SplitLines(LineSplitter& splitter, std::string_view piece, const LineHandler& handle);

// Call at the end of the stream: handles a last line without a line end.
void FlushLine(LineSplitter& splitter, const LineHandler& handle);

} // namespace report
