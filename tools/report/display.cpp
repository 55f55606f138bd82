#include "display.h"

#include <algorithm>
#include <cmath>

#include "run_report.h"
#include "support.h"

namespace report {

namespace {

constexpr char32_t Replacement = 0xFFFD;

// Consumes one character; where the bytes are not valid UTF-8, one byte, and returns Replacement.
char32_t ConsumeCharacter(std::string_view& bytes) {
    const auto byte = [bytes](std::size_t at) { return static_cast<unsigned char>(bytes[at]); };
    const unsigned char lead = byte(0);
    const std::size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    char32_t character = length == 1 ? lead : lead & (0x7FU >> length);
    bool valid = length > 0 && length <= bytes.size();
    for (std::size_t i = 1; valid && i < length; ++i) {
        valid = byte(i) >> 6 == 2;
        character = character << 6 | (byte(i) & 0x3FU);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    valid = valid && character >= least[length] && character <= 0x10FFFF && !(character >> 11 == 27);
    bytes.remove_prefix(valid ? length : 1);
    return valid ? character : Replacement;
}

bool IsVisible(char32_t character) {
    const bool control = character < 0x20 || (character >= 0x7F && character < 0xA0);
    const bool separator_or_direction = (character >= 0x2028 && character <= 0x202E) || character == 0x200E ||
                                        character == 0x200F || (character >= 0x2066 && character <= 0x2069);
    return !control && !separator_or_direction;
}

std::string ShowMinutes(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    return FormatText("%lld:%02lld", whole / 60, whole % 60);
}

std::string ShowHours(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    return FormatText("%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
}

} // namespace

std::string VisibleText(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const std::string_view rest = bytes;
        const char32_t character = ConsumeCharacter(bytes);
        if (character != Replacement && IsVisible(character))
            text += rest.substr(0, rest.size() - bytes.size());
        else
            text += "\xEF\xBF\xBD";
    }
    return text;
}

std::string HtmlText(std::string_view bytes) {
    std::string text;
    for (const char character : VisibleText(bytes)) {
        switch (character) {
        case '&':
            text += "&amp;";
            break;
        case '<':
            text += "&lt;";
            break;
        case '>':
            text += "&gt;";
            break;
        case '"':
            text += "&quot;";
            break;
        case '\'':
            text += "&#39;";
            break;
        default:
            text += character;
        }
    }
    return text;
}

std::string TerminalText(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const char32_t character = ConsumeCharacter(bytes);
        text += character >= 0x20 && character < 0x7F ? static_cast<char>(character) : '?';
    }
    return text;
}

std::string ShowShare(double share) {
    constexpr double least = 0.001;
    return FormatText("%.1f %%", (share > 0 ? std::max(share, least) : 0.0) * 100);
}

const ColumnUnit& BytesUnit(double greatest) {
    static constexpr ColumnUnit units[] = {{"B", [](double bytes) { return FormatText("%.0f", bytes); }},
                                           {"KB", [](double bytes) { return FormatText("%.3f", bytes / 1e3); }},
                                           {"MB", [](double bytes) { return FormatText("%.3f", bytes / 1e6); }},
                                           {"GB", [](double bytes) { return FormatText("%.3f", bytes / 1e9); }}};
    return units[ScaleDecimal(greatest).unit];
}

const ColumnUnit& TimeUnit(double greatest) {
    static constexpr ColumnUnit seconds{"s", [](double time) { return FormatText("%.3f", time); }};
    static constexpr ColumnUnit minutes{"min:s", ShowMinutes};
    static constexpr ColumnUnit hours{"h:min:s", ShowHours};
    return greatest < 600 ? seconds : greatest < 3600 ? minutes : hours; // milliseconds matter among short ones
}

std::string ShowBytes(double bytes) {
    static constexpr const char* units[] = {"B", "KB", "MB", "GB"};
    const ScaledAmount amount = ScaleDecimal(bytes);
    return FormatText("%.*f %s", amount.unit == 0 ? 0 : 3, amount.value, units[amount.unit]);
}

std::string ShowDuration(double seconds) {
    if (seconds >= 60)
        return seconds < 3600 ? ShowMinutes(seconds) : ShowHours(seconds);
    return FormatText(seconds == std::floor(seconds) ? "%.0f s" : "%.3f s", seconds);
}

std::string ShowTime(double time) {
    constexpr double day = 86400;
    const int seconds = static_cast<int>(std::fmod(time, day));
    return FormatText("%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

} // namespace report
