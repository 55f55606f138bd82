// The save and restore commands: they move objects between the store and the save files in the QTEMP of a session. Run
// by the thread of that session.

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "rehearsal.h"
#include "store.h"

namespace rehearsal {

// The library QTEMP of a session: a private directory of save files, removed with this object. A save file is a regular
// file, or a link to the file of the store that it consists of (Options::raw). Save files are replaced, never written
// in place, so the target of a link keeps its bytes.
class TemporaryLibrary {
public:
    TemporaryLibrary(); // throws std::system_error
    ~TemporaryLibrary();
    TemporaryLibrary(const TemporaryLibrary&) = delete;
    TemporaryLibrary& operator=(const TemporaryLibrary&) = delete;

    bool Has(const std::string& name) const;
    std::filesystem::path File(const std::string& name) const { return directory_ / name; }
    Descriptor Open(const std::string& name) const;    // for reading
    Descriptor Replace(const std::string& name) const; // creates an empty one, for writing

private:
    std::filesystem::path directory_;
};

// The name of the save file that a server path means: NAME for /QSYS.LIB/QTEMP.LIB/NAME.SAVF, in upper or lower case.
// `suffix` is ".SAVF", or ".FILE" in a DEV parameter. Nothing for any other path.
std::optional<std::string> SaveFileName(const std::string& path, const std::string& suffix);

// What a command works with.
struct Job {
    const Options& options;
    const Store& store;
    const TemporaryLibrary& library;
    std::uint64_t& saved_bytes; // set by a save: the length of the save file
};

// Runs one command and returns its completion message. Throws EscapeMessage when it fails.
std::string RunCommand(const Job& job, const std::string& line);

} // namespace rehearsal
