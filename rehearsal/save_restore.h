// The save and restore commands, run for one session: they move objects between the store and the save files
// in the session's QTEMP.

#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "rehearsal.h"
#include "store.h"

namespace rehearsal {

// A session's library QTEMP: save files and nothing else, in a private directory that goes with it. A save
// file is a plain file there, or a link to the file of the store that stands for it (Options::raw). One is
// always replaced and never written in place, so a link's target keeps its bytes.
class TemporaryLibrary {
public:
    TemporaryLibrary(); // throws std::system_error
    ~TemporaryLibrary();
    TemporaryLibrary(const TemporaryLibrary&) = delete;
    TemporaryLibrary& operator=(const TemporaryLibrary&) = delete;

    bool Has(const std::string& name) const;
    std::filesystem::path File(const std::string& name) const { return directory_ / name; }
    Descriptor Open(const std::string& name) const;    // for reading
    Descriptor Replace(const std::string& name) const; // makes an empty one, for writing

private:
    std::filesystem::path directory_;
};

// The save file that the server path names: NAME for /QSYS.LIB/QTEMP.LIB/NAME.SAVF, whatever the case;
// `suffix` is
// ".SAVF", or ".FILE" in a DEV parameter. Nothing for any other path.
std::optional<std::string> SaveFileName(const std::string& path, const std::string& suffix);

// What a command works on.
struct Job {
    const Options& options;
    const Store& store;
    const TemporaryLibrary& library;
};

// Runs one command. Gives the completion message; throws Escape when it failed.
std::string RunCommand(const Job& job, const std::string& line);

} // namespace rehearsal
