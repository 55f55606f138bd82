// A run as one page that needs nothing else: no script, no font, no picture from elsewhere. It keeps to the reader's
// choice of light or dark, and whatever came from the log is text and nothing else.

#pragma once

#include <ctime>
#include <string>

#include "past_run.h"
#include "run.h"

// `ended` is in seconds since the epoch, 0 when not known; `past` and `changes` are both null or both given.
std::string HtmlPage(const LoggedRun& run, std::time_t ended, const PastRun* past, const Changes* changes);
