// The picture of the workers of a run over time.

#pragma once

#include <string>

#include "run.h"

// A row for each worker that has objects, a bar for each object: its phases where the log tells them, the failed ones
// in a colour of their own. "" when there is nothing to draw. An SVG element that takes its colours from the page's
// style.
std::string TimelineSvg(const LoggedRun& run);
