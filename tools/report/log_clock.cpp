#include "log_clock.h"

#include <algorithm>

namespace report {

namespace {

constexpr int Day = 24 * 3600;
constexpr int Slack = 60; // seconds that lines, or clocks, may be out of order

} // namespace

void LogClock::Advance(int time) {
    if (first < 0)
        first = last = time;
    if (time - last < -Day / 2)
        ++days;
    else if (days > 0 && time - last > Day - Slack) // a line from before midnight came late
        return;
    last = time;
    elapsed = std::max(elapsed, static_cast<double>(days) * Day + time - first);
}

std::time_t LogClock::LastMoment(std::time_t known) const {
    if (last < 0)
        return 0;
    std::tm local{};
    ::localtime_r(&known, &local);
    local.tm_hour = last / 3600;
    local.tm_min = last / 60 % 60;
    local.tm_sec = last % 60;
    local.tm_isdst = -1;
    std::tm day_before = local;
    --day_before.tm_mday;
    const std::time_t moment = std::mktime(&local);
    return moment <= known + Slack ? moment : std::mktime(&day_before);
}

std::time_t LogClock::FirstMoment(std::time_t known) const {
    return last < 0 ? 0 : LastMoment(known) - static_cast<std::time_t>(elapsed);
}

} // namespace report
