// The last run as gauges for node_exporter's text-file collector. Nothing of it is text from the log, so that no name
// on a server can put a figure in.

#pragma once

#include <ctime>
#include <string>

#include "run.h"

// Writes the run, which ended at `ended` (seconds since the epoch, 0 when not known), to the file. Each gauge has the
// labels `labels`, without braces, "" for none. The end of the last good run is this one's, or else what the file told
// before. A figure that the log does not tell has no line. False, with errno set, when the file could not be read or
// written; then it stands as it was.
bool WritePrometheus(const std::string& path, const std::string& labels, const LoggedRun& run, std::time_t ended);
