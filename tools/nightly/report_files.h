// What a night leaves for people and monitors, made with the report library: its page, and the metrics.

#pragma once

#include <ctime>
#include <vector>

#include "config.h"
#include "night.h"
#include "report/run_context.h"

namespace nightly {

// Writes the night's page into its directory and the metrics where the configuration says. Throws Failure.
void WriteReports(Disk& disk, const Config& config, const Night& night, const Night* last_good);

// What a night like the last good one of this level will come to.
report::Expectation ExpectationFrom(const Night* last_good);

} // namespace nightly
