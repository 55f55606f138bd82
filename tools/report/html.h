// A run as a self-contained page: no script, font or image from elsewhere. It follows the reader's choice of light or
// dark, and everything that came from the log is shown as text.

#pragma once

#include <ctime>
#include <string>

#include "past_run.h"
#include "run.h"
#include "run_context.h"

namespace report {

// `ended` is the epoch time of the last line, 0 when not known; `past` and `changes` are both null or both given.
std::string HtmlPage(const LoggedRun& run, const RunContext& context, std::time_t ended, const PastRun* past,
                     const Changes* changes);

} // namespace report
