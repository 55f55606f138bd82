// Files that are either the old ones or complete new ones, at every moment.

#pragma once

#include <string>

#include <sys/stat.h>

bool IsSameFile(const struct stat& one, const struct stat& other);

// Replaces the file at `path`, or where symbolic links there lead, by `text`, through a temporary file beside it that
// is renamed when it is on disk. What is no file, such as a pipe, and whatever standard output is, is written to as it
// is; a pipe without a reader fails. False, with errno set, when that fails: then the old file stands and the temporary
// one is gone.
bool ReplaceFile(const std::string& path, const std::string& text);
