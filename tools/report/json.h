// A run as JSON for programs, one record per line. Every record has a "type". A field whose value is not known is left
// out. All times are in seconds since the epoch. Invalid UTF-8 becomes U+FFFD, and all but ASCII is escaped as \uXXXX.

#pragma once

#include <ctime>

#include "output.h"
#include "past_run.h"
#include "run.h"
#include "run_context.h"

namespace report {

// A record of type "save" or "entry", or "missing" for what is missing in whole or in part; its "run" is the number of
// the run in the log. `started` is the epoch time of the first line of that run, 0 when not known.
void WriteResultRecord(Output& output, const LoggedRun& run, const Result& result, std::time_t started);

// The records at the end of the output: each "message", each "connection" fault, each "change" (`changes` may be null),
// each "total", and the "run". `started` and `ended` are the epoch times of its first and last line, 0 when not known.
void WriteRunRecords(Output& output, const LoggedRun& run, const RunContext& context, std::time_t started,
                     std::time_t ended, const Changes* changes);

} // namespace report
