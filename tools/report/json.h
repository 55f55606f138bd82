// A run as JSON, one record a line, for programs. Every record has a "type"; a field that the log does not tell is not
// there. Names that are no UTF-8 have U+FFFD where their bytes are none; everything beyond ASCII is written as \uXXXX.

#pragma once

#include <ctime>

#include "output.h"
#include "past_run.h"
#include "run.h"

// {"type":"object"}, and {"type":"failure"} for what is not wholly there; "run" tells apart the runs of one log.
void WriteObjectRecord(Output& output, const LoggedRun& run, const ObjectResult& object);

// The records that close the output: a "message" each, the "change"s (`changes` may be null), the "total"s and at last
// "run". `ended` is in seconds since the epoch, 0 when not known.
void WriteRunRecords(Output& output, const LoggedRun& run, std::time_t ended, const Changes* changes);
