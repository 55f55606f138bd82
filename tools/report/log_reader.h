// Reads a log to its end: from a run under way, with regular looks at the clock, or from a file at once.

#pragma once

#include <functional>
#include <string_view>

#include "run.h"

namespace report {

// Reads `input` to its end. Calls `process` for each piece as soon as it is received, and `tick` after each piece and
// whenever `tick_ms` have passed without one (-1: never). Returns 0, or the errno of the failure.
int ReadToEnd(int input, int tick_ms, const std::function<void(std::string_view)>& process,
              const std::function<void()>& tick);

// Processes all lines of `input`, which does not block, and finishes the run. Returns 0, or the errno of the failure.
int ReadRun(int input, LoggedRun& run);

} // namespace report
