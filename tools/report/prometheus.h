// The last run as gauges for node_exporter's text-file collector. No text from the log gets in, so no name on a server
// can forge a gauge.

#pragma once

#include <ctime>
#include <string>

#include "run.h"
#include "run_context.h"

namespace report {

// Writes the gauges of a run that ended at the epoch time `ended` (0 when not known). Each gauge has the labels
// `labels`, without braces, "" for none. When the run is not good (see IsGood), the end of the last good run is kept
// from the old file. A gauge whose value is not known is left out. Returns false, with errno set, when the file cannot
// be read or written; it is then unchanged. `further` are gauges of the caller's own, as they are to be written.
bool WritePrometheus(const std::string& path, const std::string& labels, const LoggedRun& run,
                     const RunContext& context, std::time_t ended, const std::string& further = {});

} // namespace report
