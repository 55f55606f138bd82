// The time of a log. Its lines have a time of day but no date.

#pragma once

#include <ctime>

namespace report {

struct LogClock {
    int first = -1; // seconds since midnight of the first and last line, -1 without a line
    int last = -1;
    int days = 0;       // midnights crossed
    double elapsed = 0; // seconds from the first line to the last

    // Advances to the next line, given its seconds since midnight. A step back of more than half a day is midnight. A
    // smaller one is a clock that was put back, or two threads around the turn of a second: time stands still. A gap of
    // more than half a day across midnight looks like a clock put back and is taken for one.
    void Advance(int time);

    // The epoch time of the last line: the latest local moment with its time of day that is not after `known`, a moment
    // at which the line had been written. 0 without a line.
    std::time_t LastMoment(std::time_t known) const;
    // The same for the first line.
    std::time_t FirstMoment(std::time_t known) const;
};

} // namespace report
