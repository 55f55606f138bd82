// The store: server paths on top of an ordinary directory tree. Driven by the sessions and by the save and
// restore commands, from any thread; nothing here changes after construction.
//
// Links are followed as the server would, with the store's root as "/", one component at a time on open
// directory handles. So no path and no link, not even one exchanged meanwhile, leads out of the tree.

#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace rehearsal {

// The one owner of a file descriptor; -1 while there is none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    int get() const { return value_; }
    explicit operator bool() const { return value_ >= 0; }

private:
    int value_ = -1;
};

// What the server knows of an object.
struct Status {
    mode_t mode = 0; // type and permissions
    std::uint64_t size = 0;
    std::timespec changed{};
};

struct Child {
    std::string name;
    Status status;
};

// Where a path leads: a name, perhaps not there yet, in an open directory. Neither is a link passed on the
// way.
struct Place {
    Descriptor directory;
    std::string name;

    std::optional<Status> Look() const;                // does not follow a link
    Descriptor Open(int flags, mode_t mode = 0) const; // opens the name itself, never what a link points to
    std::string LinkTarget() const;
};

// The path by which the host reaches an open file. Throws std::filesystem::filesystem_error.
std::filesystem::path OpenedAs(const Descriptor& file);

// Security data and configuration: plain files at the root of the store that no path of a client names.
inline constexpr char SecurityData[] = "/Security Data";
inline constexpr char SystemConfiguration[] = "/System Configuration";

// `path` taken from the directory `current` when relative: "/a/b", without doubled slashes and single dots.
// Nothing for what a client must not name: "..", the two files above, a name with a zero byte.
std::optional<std::string> NormalPath(const std::string& current, std::string_view path);

// Whether normal path `path` is `base` or lies below it.
bool IsWithin(std::string_view path, std::string_view base);

// The part before the last slash ("/" for a path of one component), and the part behind it.
std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);
// `directory` and `name` with one slash between.
std::string Join(const std::string& directory, const std::string& name);

class Store {
public:
    // Throws std::system_error when `root` is not a directory.
    explicit Store(const std::filesystem::path& root);

    // Where a normal path leads. Links on the way are followed, one at the end only with `follow`. Nothing
    // when a directory on the way is missing or a link leads nowhere.
    std::optional<Place> Locate(const std::string& path, bool follow) const;
    std::optional<Status> Look(const std::string& path, bool follow) const;
    Descriptor OpenDirectory(const std::string& path) const;
    // The entries of a directory by the bytes of their names, without the two hidden files.
    std::vector<Child> Children(const std::string& path) const;

private:
    Descriptor Reopen(const std::vector<std::string>& names) const;

    Descriptor root_;
};

} // namespace rehearsal
