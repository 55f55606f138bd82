// Include and exclude files: one full server path per line, which may be a pattern, optionally " :: " and a
// second path. Not thread-safe: call from one thread at a time.

#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <fnmatch.h>

#include "string_list.h"

constexpr std::size_t PathLineCapacity = 4096; // a line and its terminator; longer lines count in pieces

// Reads the next line without its newline; an empty line keeps it. Returns false at the end of the file.
bool ReadPathLine(std::string& line, std::FILE* stream);

// Whether a pattern contains "*" or "?".
bool HasWildCard(std::string_view pattern);
// Whether it contains a character that fnmatch() does not take for itself: one of these, "[" or "\".
bool IsPattern(std::string_view text);

// For fnmatch(): wild cards do not stand for "/", and a pattern matches what is below a path that it matches.
constexpr int PathMatchFlags = FNM_PATHNAME | FNM_LEADING_DIR;

enum class PathFileUse { BackupInclude, BackupExclude, Restore };

// What in a path file is surely a mistake, a sentence for each, such as "line 3 is empty and matches everything"; the
// first ten and how many more. Leaves the file at its start. A file that cannot be rewound is not looked at.
std::vector<std::string> FindMistakes(std::FILE* stream, PathFileUse use);

// Whether lines that contain "*" or "?" count: in a backup they do, in a restore they are ignored.
enum class WildCards { Match, Ignore };

// Asks a path file about a path. A change of the file is noticed a second later at most. Requires: a stream that was
// asked about stays open while others are asked about.
//
// A line matches the path when its pattern, under fnmatch with wild cards that do not cross "/", matches the path or a
// leading part of it that ends before a "/"; a pattern with more levels than the path never does. The first such line
// ends the search. With a list, the path is then appended to it with the line's second path, and before that every line
// found that begins with the path and "/", with its own.
//
// Returns 0 when a line matched or something was appended, 1 when not or without a file, -1 after logging that the file
// cannot be rewound.
int MatchPathFile(std::string_view path, StringList* list, std::FILE* stream, WildCards wild_cards);
