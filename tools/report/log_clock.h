// The time of a log, whose lines tell the time of day and no date.

#pragma once

#include <ctime>

struct LogClock {
    int first = -1; // seconds since midnight of the first and last line, -1 before there is one
    int last = -1;
    int days = 0;       // midnights crossed
    double elapsed = 0; // seconds from the first line to the last

    // Takes the next line's seconds since midnight. A fall of more than half a day is midnight; a smaller one is a
    // clock put back, or two threads at the turn of a second, and time stands still. A silence of more than half a day
    // that crosses midnight cannot be told from a clock put back.
    void Take(int time);

    // The moment of the last line: its time of day, here, at or just before `known`, when the log had been
    // written. 0 without a line.
    std::time_t LastMoment(std::time_t known) const;
};
