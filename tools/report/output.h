// Bytes on their way out. A reader of standard output that goes away is no failure: the log is read to its end all the
// same, so that the run that writes it does not die of it.

#pragma once

#include <string_view>

struct Output {
    int descriptor = -1; // -1: nothing is written, or no longer
    bool mid_line = false;
    int error = 0; // errno of the write that failed, but for the reader of standard output gone away
};

// Writes all of the bytes, waiting as long as it takes; after a failure, nothing any more.
void Write(Output& output, std::string_view bytes);
