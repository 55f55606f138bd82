// Files of sums: one line an entry, in the archive's order,
//
//     SHA-256 of the data (64 hexadecimal digits) SP offset of the header SP size of the data SP name as stored,
//     escaped

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "entry.h"
#include "support.h"

struct SumLine {
    std::string digest;
    std::int64_t offset = 0;
    std::int64_t size = 0;
    std::string name;  // as stored
    long position = 0; // of the line in its file
};

// Reads such a file. Everything throws Failure, with the number of the line, at the first one that is none, or whose
// entry could not stand behind that of the line before.
class SumsFile {
public:
    explicit SumsFile(const std::string& path);
    // The line that Next() would give; nothing at the end.
    const std::optional<SumLine>& Head() const { return head_; }
    void Next();
    // The line at a position that a line had. Head() is lost.
    SumLine LineAt(long position);

private:
    std::optional<SumLine> ReadLine();

    std::string name_;
    Stream stream_;
    std::size_t number_ = 0;
    std::optional<SumLine> head_;
};
