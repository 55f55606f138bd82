// Every change to a directory of nights goes through these calls: a directory or file appears complete and on disk, or
// not at all. Each throws Failure. A test may stop the program before any step, or let one fail.

#pragma once

#include <functional>
#include <string>

#include "ctar/messages.h"

namespace nightly {

class Disk {
public:
    // Called before each change with its name ("rename") and the path, and may throw.
    std::function<void(const char* step, const std::string& path)> before;

    void MakeDirectory(const std::string& path);
    // Replaces the file at `path` by one with this text, mode 0600.
    void WriteFile(const std::string& path, const std::string& text);
    void Rename(const std::string& from, const std::string& to);
    void Remove(const std::string& path);          // a file; it is no failure when there is none
    void RemoveDirectory(const std::string& path); // must be empty
    // Brings a directory and the files directly in it to stable storage.
    void SyncDirectory(const std::string& path);

private:
    void Before(const char* step, const std::string& path) const;
};

bool Exists(const std::string& path);
// The text of a file of at most 16 MiB. Throws Failure.
std::string ReadSmallFile(const std::string& path);

} // namespace nightly
