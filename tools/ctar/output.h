// A file that is there in whole or not at all: written under a temporary name beside its own.

#pragma once

#include <span>
#include <string>

#include "support.h"

class OutputFile {
public:
    // Makes the temporary file, mode 0600. Throws Failure, also when `path` exists without `force`, is no regular
    // file, or a backup is writing into it. One such file can stand at a time.
    OutputFile(const std::string& path, bool force);
    // Removes the temporary file unless it was committed. A signal that ends the program removes it too.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(std::span<const char> bytes); // throws Failure
    // Flushes to disk and gives the file its name. Throws Failure, also when `path` has come to be one that
    // the constructor refuses.
    void Commit();

private:
    std::string path_;
    bool force_;
    Descriptor file_;
};

// Writes all of it; throws Failure, with `name`.
void WriteAll(int descriptor, std::span<const char> bytes, const std::string& name);
