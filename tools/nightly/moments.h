// Names of nights, calendar days in the server's time zone, durations and shares as texts. Moments are seconds since
// the epoch. Not for several threads: a zone is chosen by the environment variable TZ.

#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace nightly {

// "2026-11-21T220000Z", the time in UTC.
std::string NightName(std::time_t moment);
std::optional<std::time_t> ParseNightName(std::string_view name); // nothing unless NightName() writes it like that

// Calendar units that a moment falls into, as numbers that differ from unit to unit and grow with time.
struct CalendarUnits {
    std::int64_t day = 0;
    std::int64_t week = 0; // ISO: from Monday to Sunday
    std::int64_t month = 0;
    int weekday = 0; // 0 is Sunday
};
CalendarUnits UnitsOf(std::time_t moment, const std::string& zone);

bool IsTimeZone(const std::string& zone); // such as "Europe/Berlin" or "UTC", in the system's database
// The moment in that zone: "2026-11-21 23:00".
std::string ShowMoment(std::time_t moment, const std::string& zone);

// A number and s, m, h, d, w or y (365 days): "15m". Nothing when it is anything else, or longer than 1000 years.
std::optional<std::int64_t> ParseDuration(std::string_view text);
std::string ShowSpan(double seconds); // "47 s", "26 h", "3 days": for ages, rounded down

// "2.5%" as 0.025; from 0 to 100 percent.
std::optional<double> ParseShare(std::string_view text);
std::string ShowShare(double share); // "0.025 %"

} // namespace nightly
