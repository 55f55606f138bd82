// Lines out of a stream of pieces, in bounded memory: what is beyond the longest line that can mean something is
// dropped.

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

constexpr std::size_t LogChunk = 65536;      // bytes to read at a time
constexpr std::size_t LongestLogLine = 8192; // bytes kept of a line: more than a name and its prefixes can have

struct LineSplitter {
    std::string held; // the beginning of a line whose end is not there yet
};

using TakeLine = std::function<void(std::string_view line)>;

// Gives each line that the piece ends, without its line end.
void SplitLines(LineSplitter& splitter, std::string_view piece, const TakeLine& take);

// The stream is at its end: gives what stands behind the last line end.
void EndLines(LineSplitter& splitter, const TakeLine& take);
