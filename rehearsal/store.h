// The store: server paths on top of an ordinary directory tree. Used by sessions and by the save and restore commands,
// from any thread; nothing changes after construction.
//
// Links are followed as the server would follow them, with the root of the store as "/", one component at a time, on
// open directories. So no path and no link leads out of the tree, even when a link is replaced in the meantime.

#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "resources.h"

namespace rehearsal {

struct Status {
    mode_t mode = 0; // type and permissions
    std::uint64_t size = 0;
    std::timespec changed{};
};

struct Child {
    std::string name;
    Status status;
};

// The location of an object that may not exist yet: its name in an open directory.
struct Place {
    Descriptor directory;
    std::string name;

    std::optional<Status> ReadStatus() const;          // of a link itself; nothing when there is no such object
    Descriptor Open(int flags, mode_t mode = 0) const; // does not follow a link
    std::string LinkTarget() const;
};

// The path of an open file on this machine. Throws std::filesystem::filesystem_error.
std::filesystem::path HostPath(const Descriptor& file);

// Security data and configuration: regular files at the root of the store that clients cannot name.
inline constexpr char SecurityData[] = "/Security Data";
inline constexpr char SystemConfiguration[] = "/System Configuration";

// The absolute form of `path`, "/a/b" without doubled slashes and single dots; relative paths start at `current`.
// Nothing for what a client must not name: "..", the two files above, a name that contains a NUL.
std::optional<std::string> NormalPath(const std::string& current, std::string_view path);

// Whether the normal path `path` is `base` or below it.
bool IsWithin(std::string_view path, std::string_view base);

// The part after the last slash.
std::string NameOf(const std::string& path);
// The path of `name` in `directory`.
std::string Join(const std::string& directory, const std::string& name);

class Store {
public:
    // Throws std::system_error when `root` is not a directory.
    explicit Store(const std::filesystem::path& root);

    // The place of a normal path. Links on the way are followed; a link at the end only with `follow`. Nothing when a
    // directory on the way is missing or a link leads nowhere.
    std::optional<Place> Locate(const std::string& path, bool follow) const;
    std::optional<Status> ReadStatus(const std::string& path, bool follow) const;
    Descriptor OpenDirectory(const std::string& path) const;
    // The entries of a directory, sorted by the bytes of their names, without the two hidden files.
    std::vector<Child> Children(const std::string& path) const;

private:
    Descriptor OpenFromRoot(const std::vector<std::string>& names) const;

    Descriptor root_;
};

} // namespace rehearsal
