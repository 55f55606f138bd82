// A file that appears complete or not at all: it is written under a temporary name in the same directory.

#pragma once

#include <span>
#include <string>

#include "resources.h"

namespace ctar {

class OutputFile {
public:
    // Creates the temporary file, mode 0600. Throws Failure, also when `path` exists and `force` is false, is not a
    // regular file, or a backup is writing to it. At most one OutputFile exists at a time.
    OutputFile(const std::string& path, bool force);
    // Removes the temporary file unless it was committed. So does a signal that ends the program.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(std::span<const char> bytes); // throws Failure
    // Another descriptor of the file, for a writer that goes back and forth in it. Throws Failure.
    Descriptor Duplicate() const;
    // Flushes the file to disk and renames it to `path`. Throws Failure, also when `path` has meanwhile become one that
    // the constructor refuses.
    void Commit();

private:
    std::string path_;
    bool force_;
    Descriptor file_;
};

// Writes all of the bytes. Throws Failure, which names the file as `name`.
void WriteOrThrow(int descriptor, std::span<const char> bytes, const std::string& name);

} // namespace ctar
