// Files that are at every moment either the old ones or complete new ones.

#pragma once

#include <string>

#include <sys/stat.h>

namespace report {

bool IsSameFile(const struct stat& one, const struct stat& other);

// Replaces the file at `path`, following symbolic links, with `text`: writes a temporary file next to it and renames it
// once it is on disk. Anything but a regular file, and the file that is standard output, is written in place; a pipe
// without a reader is a failure. Returns false, with errno set, after a failure: a regular file is then unchanged, and
// the temporary one is removed.
bool ReplaceFile(const std::string& path, const std::string& text);

} // namespace report
