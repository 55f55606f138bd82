#include "listing.h"

#include <algorithm>
#include <array>

#include <sys/stat.h>

#include "text.h"

namespace {

struct PermissionLetter {
    std::size_t position; // in the line
    char letter;
    std::uint32_t bits;
};

// What each letter of the mode field adds. The rows of group and others are what this server's listings mean,
// not what a Unix listing would.
constexpr std::array<PermissionLetter, 12> PermissionLetters{{
    {1, 'r', 0400},
    {2, 'w', 0200},
    {3, 'x', 0100},
    {3, 's', 04100},
    {4, 'r', 0020},
    {5, 'w', 0020},
    {6, 'x', 0010},
    {6, 's', 02010},
    {7, 'r', 0002},
    {8, 'w', 0002},
    {9, 'x', 0001},
    {9, 's', 01001},
}};
constexpr std::size_t ModeWidth = 10;

constexpr std::array<std::string_view, 12> MonthNames{"January",   "February", "March",    "April",
                                                      "May",       "June",     "July",     "August",
                                                      "September", "October",  "November", "December"};
constexpr std::size_t MonthAbbreviation = 3;

std::uint32_t ParseMode(std::string_view field) {
    std::uint32_t mode = field.starts_with('d') ? S_IFDIR : S_IFREG;
    for (const PermissionLetter& row : PermissionLetters)
        if (row.position < field.size() && field[row.position] == row.letter)
            mode |= row.bits;
    return mode;
}

// The digits at the field's start; 0 without any, all ones when they do not fit.
std::uint64_t ParseSize(std::string_view field) {
    const bool is_number = !field.empty() && IsDigit(field.front());
    return ConsumeNumber<std::uint64_t>(field).value_or(is_number ? UINT64_MAX : 0);
}

// A number as strptime reads one: blanks, then at most `digits` digits, stopping early when another one would
// leave the range; -1 when there is none in the range.
int ConsumeNumberInRange(std::string_view& text, int from, int to, int digits) {
    SkipSpace(text);
    int value = 0;
    int taken = 0;
    while (taken < digits && !text.empty() && IsDigit(text.front()) && (taken == 0 || value * 10 <= to)) {
        value = value * 10 + (text.front() - '0');
        text.remove_prefix(1);
        ++taken;
    }
    return taken > 0 && value >= from && value <= to ? value : -1;
}

// "Mar 5" or "March 5", in any case of letters.
bool ConsumeDate(std::string_view& text, CalendarTime& time) {
    SkipSpace(text);
    for (std::size_t month = 0; month < MonthNames.size(); ++month) {
        const std::string_view name = MonthNames[month];
        if (!ConsumePrefixIgnoringCase(text, name) &&
            !ConsumePrefixIgnoringCase(text, name.substr(0, MonthAbbreviation)))
            continue;
        time.month = static_cast<std::int8_t>(month);
        time.day = static_cast<std::int8_t>(ConsumeNumberInRange(text, 1, 31, 2));
        return time.day > 0;
    }
    return false;
}

// "14:07": a date without a year is not in the future, by its month.
bool ConsumeClock(std::string_view& text, const std::tm& now, CalendarTime& time) {
    const int hour = ConsumeNumberInRange(text, 0, 23, 2);
    if (hour < 0 || !ConsumePrefixIgnoringCase(text, ":"))
        return false;
    const int minute = ConsumeNumberInRange(text, 0, 59, 2);
    time.hour = static_cast<std::int8_t>(hour);
    time.minute = static_cast<std::int8_t>(minute);
    time.year = static_cast<std::int16_t>(now.tm_year - (time.month > now.tm_mon ? 1 : 0));
    return minute >= 0;
}

bool ConsumeYear(std::string_view& text, CalendarTime& time) {
    const int year = ConsumeNumberInRange(text, 0, 9999, 4);
    time.year = static_cast<std::int16_t>(year - 1900);
    return year >= 0;
}

// Parses the name: up to " -> ", else up to the line's last character, which is the carriage return.
void ConsumeName(std::string_view text, ListingEntry& entry) {
    constexpr std::string_view arrow = " -> ";
    const std::size_t link = text.find(arrow);
    if (link != text.npos) {
        entry.name = text.substr(0, link);
        text.remove_prefix(link + arrow.size());
        ConsumeField(text);
    } else {
        entry.name = text.substr(0, text.empty() ? 0 : text.size() - 1);
        text.remove_prefix(entry.name.size());
    }
    SkipSpace(text);
    entry.leftover = text;
}

} // namespace

std::optional<ListingFailure> ParseListingLine(std::string_view line, const std::tm& now, ListingEntry& entry) {
    std::string_view rest = line;
    rest.remove_prefix(std::min(ModeWidth, rest.size()));
    entry.mode = ParseMode(line.substr(0, ModeWidth));
    for (int skipped = 0; skipped < 3; ++skipped) // links, owner, group
        ConsumeField(rest);
    entry.size = ParseSize(ConsumeField(rest));
    if (!ConsumeDate(rest, entry.mtime))
        return ListingFailure{"can't parse date", line};
    SkipSpace(rest);
    if (rest.size() > 2 && rest[2] == ':') {
        if (!ConsumeClock(rest, now, entry.mtime))
            return ListingFailure{"can't parse time", line};
    } else if (!ConsumeYear(rest, entry.mtime)) {
        return ListingFailure{"can't parse year", line};
    }
    SkipSpace(rest);
    ConsumeName(rest, entry);
    // An empty name would be its own directory again, a slash one outside of it, and a return would break the lists.
    if (entry.name.empty() || entry.name.find_first_of("/\r") != entry.name.npos)
        return ListingFailure{"can't parse name", line};
    if (entry.name.size() + 1 >= PathCapacity)
        return ListingFailure{"name too long", rest};
    return std::nullopt;
}
