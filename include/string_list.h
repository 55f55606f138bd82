// A list of path pairs: the answers of a path file, the parts of one archive entry to restore, the omissions
// of a restore command. A list belongs to one thread.

#pragma once

#include <list>
#include <optional>
#include <string>

struct StringPair {
    std::string first;
    std::optional<std::string> second; // the text after " :: " in a path file; absent, not empty, without one
};

// Pairs in the order in which they were appended. Callers iterate over the list and erase from it directly.
using StringList = std::list<StringPair>;
