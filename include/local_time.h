// Converts many local times to epochs: one mktime() per line of a listing would cost more than parsing it. Not
// thread-safe.

#pragma once

#include <array>
#include <cstdint>

#include "tree.h"

class LocalTimes {
public:
    // Seconds since the epoch, as mktime() has them; -1 when the system cannot tell.
    std::int64_t ToEpoch(const CalendarTime& time);

private:
    struct Day {
        std::int16_t year = 0; // as in CalendarTime, as the other two
        std::int8_t month = 0;
        std::int8_t day = 0;   // 0: no day
        bool is_plain = false; // no clock is put forward or back on that day
        std::int64_t midnight = 0;
    };

    std::array<Day, 64> days_; // the last ones asked for, by their number in the month and the month
};
