#include "local_time.h"

#include <ctime>

namespace {

std::int64_t MakeEpoch(CalendarTime time, int hour, int minute, int second) {
    std::tm fields = UnpackTime(time);
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    return std::mktime(&fields);
}

} // namespace

std::int64_t LocalTimes::ToEpoch(const CalendarTime& time) {
    Day& day = days_[static_cast<std::size_t>(time.day + 5 * time.month) % days_.size()];
    if (day.day != time.day || day.month != time.month || day.year != time.year) {
        const std::int64_t midnight = MakeEpoch(time, 0, 0, 0);
        constexpr std::int64_t rest_of_day = 24 * 60 * 60 - 1;
        const bool is_plain = midnight != -1 && MakeEpoch(time, 23, 59, 59) - midnight == rest_of_day;
        day = {time.year, time.month, time.day, is_plain, midnight};
    }
    if (!day.is_plain)
        return MakeEpoch(time, time.hour, time.minute, time.second);
    return day.midnight + (time.hour * 60 + time.minute) * 60 + time.second;
}
