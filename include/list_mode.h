// One line of a server's listing as list mode reads it: the name of an object becomes its full path. Pure text work.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

constexpr std::size_t ListLineLimit = 4095; // characters of a pending line, and of a path

// Collects the listing's bytes until a carriage return ends a line. The white space that follows is dropped.
struct ListLines {
    std::string pending;        // the part of a line received so far
    bool between_lines = false; // the last chunk ended in the white space after a line
};

enum class ListStep {
    Line,     // `lines.pending` is a whole line; clear it before the next call
    MoreData, // the chunk is used up
    TooLong,
};
// Consumes the chunk up to the end of the next line.
ListStep ConsumeListLine(ListLines& lines, std::string_view& chunk);

struct ListedObject {
    std::string path; // below the include path, cut to 4094 characters when it has 4095
    std::string name; // alone, up to its first blank
    bool is_directory = false;
    // Below /QSYS.LIB only libraries are objects of their own.
    bool InLibraries() const;
    bool IsLibrary() const;
};
// The object of a line in the long form (mode, links, owner, group, size, month, day, time or year, name); an empty
// name when the line ends before it. Nothing when the path is too long.
std::optional<ListedObject> ParseListLine(std::string_view include_path, std::string_view line);
