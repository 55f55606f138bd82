// What ends a command of vondral-nightly, and what its commands return.

#pragma once

#include <stdexcept>

namespace nightly {

// The text is "what: why", for standard error.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The exit statuses of `run`. The other commands use Good, Bad and Trouble with the meanings in their manual page.
enum ExitStatus { Good = 0, Gaps = 1, Bad = 2, Trouble = 3 };

} // namespace nightly
