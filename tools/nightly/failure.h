// What ends a command of vondral-nightly, and what its commands return.

#pragma once

#include "ctar/messages.h"

namespace nightly {

using ctar::Failure;

// The exit statuses of `run`. The other commands use Good, Bad and Trouble with the meanings in their manual page.
enum ExitStatus { Good = 0, Gaps = 1, Bad = 2, Trouble = 3 };

} // namespace nightly
