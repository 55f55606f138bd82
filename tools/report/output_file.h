// Files that are either the old ones or complete new ones, at every moment.

#pragma once

#include <string>

// Replaces the file at `path` by `text`, through a temporary file beside it that is renamed when it is on disk. What is
// no file, such as /dev/stdout, is written to as it is. False, with errno set, when that fails: then the old file
// stands and the temporary one is gone.
bool ReplaceFile(const std::string& path, const std::string& text);
