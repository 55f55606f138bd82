#include "moments.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "text.h"

namespace nightly {

namespace {

constexpr std::int64_t Minute = 60, Hour = 60 * Minute, Day = 24 * Hour;

// Consumes exactly `digits` digits.
std::optional<int> ConsumeDigits(std::string_view& text, std::size_t digits) {
    const std::optional<int> number = ParseNumber<int>(text.substr(0, digits));
    if (text.size() < digits || !number || !IsDigit(text.front()))
        return std::nullopt;
    text.remove_prefix(digits);
    return number;
}

std::tm LocalTime(std::time_t moment, const std::string& zone) {
    const char* const current = std::getenv("TZ");
    if (current == nullptr || zone != current) {
        ::setenv("TZ", zone.c_str(), 1);
        ::tzset();
    }
    std::tm time{};
    ::localtime_r(&moment, &time);
    return time;
}

std::int64_t DayNumber(const std::tm& time) {
    std::tm midnight{};
    midnight.tm_year = time.tm_year;
    midnight.tm_mon = time.tm_mon;
    midnight.tm_mday = time.tm_mday;
    return ::timegm(&midnight) / Day;
}

} // namespace

std::string NightName(std::time_t moment) {
    std::tm time{};
    ::gmtime_r(&moment, &time);
    return FormatText("%04d-%02d-%02dT%02d%02d%02dZ", time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour,
                      time.tm_min, time.tm_sec);
}

std::optional<std::time_t> ParseNightName(std::string_view name) {
    struct Part {
        int std::tm::*field;
        std::size_t digits;
        std::string_view separator;
    };
    static constexpr std::array<Part, 6> parts{{{&std::tm::tm_year, 4, "-"},
                                                {&std::tm::tm_mon, 2, "-"},
                                                {&std::tm::tm_mday, 2, "T"},
                                                {&std::tm::tm_hour, 2, ""},
                                                {&std::tm::tm_min, 2, ""},
                                                {&std::tm::tm_sec, 2, "Z"}}};
    const std::string_view whole = name;
    std::tm time{};
    for (const Part& part : parts) {
        const std::optional<int> number = ConsumeDigits(name, part.digits);
        if (!number || !ConsumePrefix(name, part.separator))
            return std::nullopt;
        time.*part.field = *number;
    }
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    const std::time_t moment = ::timegm(&time);
    return name.empty() && NightName(moment) == whole ? std::optional(moment) : std::nullopt;
}

CalendarUnits UnitsOf(std::time_t moment, const std::string& zone) {
    const std::tm time = LocalTime(moment, zone);
    CalendarUnits units;
    units.day = DayNumber(time);
    units.week = (units.day + 3) / 7; // day 0 was a Thursday
    units.month = std::int64_t{12} * time.tm_year + time.tm_mon;
    units.weekday = time.tm_wday;
    return units;
}

bool IsTimeZone(const std::string& zone) {
    std::error_code error;
    return zone == "UTC" || (!zone.empty() && zone.front() != '/' && zone.find("..") == zone.npos &&
                             std::filesystem::is_regular_file("/usr/share/zoneinfo/" + zone, error));
}

std::string ShowMoment(std::time_t moment, const std::string& zone) {
    const std::tm time = LocalTime(moment, zone);
    return FormatText("%04d-%02d-%02d %02d:%02d", time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour,
                      time.tm_min);
}

std::optional<std::int64_t> ParseDuration(std::string_view text) {
    constexpr std::int64_t longest = 1000 * 365 * Day;
    const std::optional<std::int64_t> number = ConsumeNumber<std::int64_t>(text);
    if (!number || *number < 0 || *number > longest || text.size() != 1)
        return std::nullopt;
    std::int64_t unit = 0;
    switch (text.front()) {
    case 's':
        unit = 1;
        break;
    case 'm':
        unit = Minute;
        break;
    case 'h':
        unit = Hour;
        break;
    case 'd':
        unit = Day;
        break;
    case 'w':
        unit = 7 * Day;
        break;
    case 'y':
        unit = 365 * Day;
        break;
    default:
        return std::nullopt;
    }
    return *number <= longest / unit ? std::optional(*number * unit) : std::nullopt;
}

std::string ShowSpan(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    if (whole < 2 * Minute)
        return FormatText("%lld s", whole);
    if (whole < 2 * Hour)
        return FormatText("%lld min", whole / Minute);
    if (whole < 2 * Day)
        return FormatText("%lld h", whole / Hour);
    return FormatText("%lld days", whole / Day);
}

std::optional<double> ParseShare(std::string_view text) {
    if (!text.ends_with('%'))
        return std::nullopt;
    text.remove_suffix(1);
    const std::optional<double> percent = ParseNumber<double>(text);
    if (!percent || !(*percent >= 0 && *percent <= 100))
        return std::nullopt;
    return *percent / 100;
}

std::string ShowShare(double share) {
    return FormatText("%.3g %%", share * 100);
}

} // namespace nightly
