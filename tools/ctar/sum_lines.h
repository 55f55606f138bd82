// Files of sums, as `ctar sum` writes them: one line per entry, in the order of the archive,
//
//     SHA-256 of the data (64 hexadecimal digits) SP offset of the header SP size of the data SP stored name, escaped

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "resources.h"

namespace ctar {

struct SumLine {
    std::string digest;
    std::int64_t offset = 0;
    std::int64_t size = 0;
    std::string name;  // as stored
    long position = 0; // of the line in its file
};

std::string FormatSumLine(const SumLine& line); // with its newline

// Reads such a file. Every call throws Failure, with the line's number, at a line that is malformed or out of order.
class SumsFile {
public:
    explicit SumsFile(const std::string& path);
    // The line that has been read; nothing at the end.
    const std::optional<SumLine>& Current() const { return current_; }
    void Advance(); // Requires: not at the end.
    // The line at SumLine::position. Current() and Advance() are of no use afterwards.
    SumLine LineAt(long position);

private:
    std::optional<SumLine> ReadNext();

    std::string name_;
    Stream stream_;
    std::size_t number_ = 0; // of the line
    std::optional<SumLine> current_;
};

} // namespace ctar
