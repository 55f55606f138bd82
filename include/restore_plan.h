// What a restore does with an entry of the archive: which of its parts are wanted, and the commands that restore them.
// A silent part: restore.h and ftp.h act on it and log what it finds, and whoever wants to know in advance may ask too.

#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "string_list.h"

// The wanted parts of an entry: none when the include file names nothing of it or the exclude file all of it.
struct WantedParts {
    StringList parts;
    bool not_included = false;
    std::vector<std::string> excluded; // parts, in the order in which they were looked up
};
// `name` is the entry's path; either file may be absent.
WantedParts SelectParts(const std::string& name, std::FILE* include, std::FILE* exclude);

// What is wrong with the names of a library and its destination; "" when nothing is. Removes their suffixes.
const char* PrepareLibraryNames(StringPair& library);

// What the member's commands name, one command each: every part, the library, or the entry itself. Requires: `parts` is
// not empty.
StringList RestoreSubjects(const RestoreMember& member, const std::string& name, const StringList& parts);

// The command for one of them; what the exclude file names below it is omitted.
std::string BuildRestoreCommand(const RestoreMember& member, const StringPair& subject, std::FILE* exclude,
                                Release release);
