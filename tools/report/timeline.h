// The timeline of a run's workers.

#pragma once

#include <string>

#include "run.h"

namespace report {

// An SVG element with a row per worker and a bar per save or entry, split into its phases where they are known; missing
// ones have their own colour. The colours come from the page's style. "" when there is nothing to draw.
std::string TimelineSvg(const LoggedRun& run);

} // namespace report
