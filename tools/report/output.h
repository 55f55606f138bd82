// Output that survives its reader. A reader of standard output that goes away is no failure: the log is read to its end
// all the same, because the run that writes it would die of a closed pipe.

#pragma once

#include <string_view>

namespace report {

// Milliseconds that a named pipe may stay full: a reader that hangs must not hold up the run for ever.
constexpr int PipePatience = 30000;

struct Output {
    int descriptor = -1; // -1: nothing is written, either not wanted or after a failure
    int patience = -1;   // milliseconds to wait for room in a non-blocking descriptor; -1: no limit
    bool mid_line = false;
    int error = 0; // errno of the failed write; 0 when only the reader of standard output went away
};

// Writes all bytes. After a failure (ETIMEDOUT when patience ran out) the output writes nothing more.
void Write(Output& output, std::string_view bytes);

} // namespace report
