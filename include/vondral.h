// The run: start-up, the choice of one mode, and its end; list mode; the signal thread.

#pragma once

#include <string>

#include "ftp.h"
#include "list_mode.h"
#include "settings.h"

// The whole program. Returns the exit status as main returns it (-1 shows as 255).
int RunVondral(int argc, char** argv);

// Writes the full paths of the objects directly under each include path to the list stream, one per line. Returns 0, or
// -1 when the include file is empty or a listing failed; the other paths are listed all the same.
int ListMode(FtpSession* session, const Settings& settings);

// What the printer of a listing works with; a new one for each listing.
struct ListPrinterContext {
    const Settings& settings;
    std::string include_path{};
    ListLines lines{};
};

// The DataCallback of list mode. Returns 0, or -1 to abort: no context, a line or path that is too long.
int ListPrinter(void* context, char* data, int* count);
