// The log as it comes, with a look at the clock while it does not.

#pragma once

#include <functional>
#include <string_view>

// Reads `input` to its end. Each piece goes to `take` as soon as it is there; `tick` comes after each piece and when
// `tick_ms` have passed without one (-1: never). Gives 0, or the errno that ended it.
int ReadToEnd(int input, int tick_ms, const std::function<void(std::string_view)>& take,
              const std::function<void()>& tick);
