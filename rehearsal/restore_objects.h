// Writing restored objects into the store: the part of the restore commands that is the same for all of them.

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

// Where an object of the save file goes, by its path there; nothing: it is not wanted; an empty path: it is
// wanted and must not go there. Throws DamagedStream for a path that the save operation cannot have written.
using Destination = std::function<std::optional<std::string>(const std::string& path)>;

class Restore {
public:
    // Objects at a path of `locked` are refused.
    Restore(const Store& store, const std::set<std::string>& locked, bool make_parents)
        : store_(store), locked_(locked), make_parents_(make_parents) {}

    // Recreates objects until the stream ends. A damaged stream throws DamagedStream after what came before
    // the damage was restored; what the header promised beyond that then counts as refused.
    void Run(SaveFileReader& reader, const Destination& destination);
    std::uint64_t restored() const { return restored_; }
    std::uint64_t refused() const { return refused_; }

private:
    void Objects(SaveFileReader& reader, const Destination& destination, std::uint64_t& seen);
    bool One(SaveFileReader& reader, const Entry& entry, const std::string& path);
    bool Directory(const Entry& entry, const std::string& path, const Place& place);
    void FinishDirectories();

    struct Made {
        std::string path;
        mode_t mode;
        std::timespec changed;
    };
    const Store& store_;
    const std::set<std::string>& locked_;
    const bool make_parents_;
    std::uint64_t restored_ = 0;
    std::uint64_t refused_ = 0;
    std::vector<Made> directories_; // their modes and times are set when nothing more is put into them
};

// Creates the directories above `path` that are missing, as far as it can.
void MakeParents(const Store& store, const std::string& path);

// Puts the plain file `source` at `place`, holes kept, and leaves a link to it in its stead; a source that is
// a link already is copied. False when it cannot.
bool PutFile(const std::filesystem::path& source, const Place& place);

} // namespace rehearsal
