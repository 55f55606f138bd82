// The catalog of a backup (-C) and its list of what was not saved (-n), line by line, and whether an archive has what a
// catalog names.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ctar {

// Calls `process` with the text of each line after its prefix, "[02:00:31] [T04] ". Throws Failure when the file cannot
// be read, or at a line without that prefix or without an end.
void ReadCatalog(const std::string& path, const std::function<void(std::string_view)>& process);

// The paths of an archive's entries, eight bytes each.
class Coverage {
public:
    void Add(std::string_view path) { digests_.push_back(DigestOf(path)); }
    // Call after the last Add().
    void Finish();
    // Whether the path is an entry, or is below one.
    bool Covers(std::string_view path) const;

private:
    static std::uint64_t DigestOf(std::string_view path);
    bool Contains(std::string_view path) const;

    std::vector<std::uint64_t> digests_; // sorted by Finish()
};

} // namespace ctar
