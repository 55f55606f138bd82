// The run: start-up, the choice of one mode, and its end; list mode; the signal thread.

#pragma once

#include <string>

#include "ftp.h"

// The whole program. Gives the exit status as main returns it (-1 shows as 255).
int RunVondral(int argc, char** argv);

// Writes the full paths of the objects directly under each include path to the list stream, one per line.
// Gives 0, or -1 when the include file is empty or a listing failed; the other paths are listed all the same.
int ListMode(FtpSession* session);

// What the printer of a listing works with: zeroed before each.
struct ListPrinterContext {
    std::string include_path;
    std::string pending;        // the part of a line that has arrived so far
    bool between_lines = false; // the last chunk ended in the white space that ends a line
};

// The DataCallback of list mode. Gives 0, or -1 to abort: no context, a line or path that is too long.
int ListPrinter(void* context, char* data, int* count);
