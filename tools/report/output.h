// Bytes on their way out. A reader of standard output that goes away is no failure: the log is read to its end all the
// same, so that the run that writes it does not die of it.

#pragma once

#include <string_view>

// How long a pipe with a name may be full, in milliseconds: a reader that hangs must not hold up the run for ever.
constexpr int PipePatience = 30000;

struct Output {
    int descriptor = -1; // -1: nothing is written, or no longer
    int patience = -1;   // milliseconds to wait for room in a descriptor that does not block; -1: as long as it takes
    bool mid_line = false;
    int error = 0; // errno of the write that failed, but for the reader of standard output gone away
};

// Writes all of the bytes; after a failure, ETIMEDOUT among them, nothing any more.
void Write(Output& output, std::string_view bytes);
