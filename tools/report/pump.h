// The log on its way from input to standard output, and a look at it in passing.

#pragma once

#include <functional>
#include <string_view>

// What standard output has come to. A reader that goes away is no failure: the log is read to its end all the same, so
// that the run that writes it does not die of it.
struct PassThrough {
    int descriptor = -1; // -1: nothing is passed on, or no longer
    bool mid_line = false;
    int error = 0; // errno of a failure other than a reader gone away
};

// Writes all of the bytes, waiting as long as it takes; after a failure, nothing any more.
void PassOn(PassThrough& output, std::string_view bytes);

// Reads `input` to its end. Each piece goes to `take` as soon as it is there; `tick` comes after each piece and when
// `tick_ms` have passed without one (-1: never). Gives 0, or the errno that ended it.
int ReadToEnd(int input, int tick_ms, const std::function<void(std::string_view)>& take,
              const std::function<void()>& tick);
