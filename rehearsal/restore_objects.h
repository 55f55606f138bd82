// Writes restored objects into the store: the part that all restore commands share. One Restore per command, used by
// the thread of its session.

#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "save_file.h"
#include "store.h"

namespace rehearsal {

// Maps the path of an object in the save file to the path to restore it to. Nothing: the object is not selected. An
// empty path: it is selected, but may not be restored there. Throws DamagedStream for a path that no save writes.
using Destination = std::function<std::optional<std::string>(const std::string& path)>;

class Restore {
public:
    // Objects whose path is in `locked` are not restored.
    Restore(const Store& store, const std::set<std::string>& locked, bool make_parents)
        : store_(store), locked_(locked), make_parents_(make_parents) {}

    // Restores objects until the stream ends. When the stream is damaged, throws DamagedStream after restoring what
    // precedes the damage; the other objects that the header announces then count as not restored.
    void Run(SaveFileReader& reader, const Destination& destination);
    std::uint64_t Restored() const { return restored_; }
    std::uint64_t NotRestored() const { return not_restored_; }

private:
    void RestoreObjects(SaveFileReader& reader, const Destination& destination, std::uint64_t& seen);
    bool RestoreObject(SaveFileReader& reader, const Entry& entry, const std::string& path);
    bool RestoreDirectory(const Entry& entry, const std::string& path, const Place& place);
    void FinishDirectories();

    struct RestoredDirectory {
        std::string path;
        mode_t mode;
        std::timespec changed;
    };
    const Store& store_;
    const std::set<std::string>& locked_;
    const bool make_parents_;
    std::uint64_t restored_ = 0;
    std::uint64_t not_restored_ = 0;
    std::vector<RestoredDirectory> directories_; // get their modes and times last, when nothing more is put into them
};

// Creates the missing directories above `path`. Errors show when the object itself is created.
void MakeParents(const Store& store, const std::string& path);

// Moves the regular file `source` to `place` and puts a link to it where it was. A source that is a link already, or
// cannot be moved, is copied with its holes. Returns false on failure.
bool PutFile(const std::filesystem::path& source, const Place& place);

} // namespace rehearsal
