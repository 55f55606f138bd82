#include "control_filter.h"

#include <algorithm>
#include <array>
#include <utility>

#include "text.h"

namespace tls {

std::optional<std::string> LineBuffer::Next() {
    const std::size_t end = bytes_.find('\n');
    if (end == bytes_.npos)
        return std::nullopt;
    std::string line = bytes_.substr(0, end + 1);
    bytes_.erase(0, end + 1);
    return line;
}

namespace {

constexpr std::pair<std::string_view, CommandKind> Verbs[] = {
    {"USER", CommandKind::Login},
    {"PASS", CommandKind::Login},
    {"ACCT", CommandKind::Login},
    {"PASV", CommandKind::Passive},
    {"LIST", CommandKind::Download},
    {"NLST", CommandKind::Download},
    {"MLSD", CommandKind::Download},
    {"RETR", CommandKind::Download},
    {"STOR", CommandKind::Upload},
    {"STOU", CommandKind::Upload},
    {"APPE", CommandKind::Upload},
    // Other data connections than those of PASV
    {"EPSV", CommandKind::Refused},
    {"LPSV", CommandKind::Refused},
    {"SPSV", CommandKind::Refused},
    {"PORT", CommandKind::Refused},
    {"EPRT", CommandKind::Refused},
    {"LPRT", CommandKind::Refused},
    // What protects the connections is the relay's. REIN would go back to before AUTH.
    {"AUTH", CommandKind::Refused},
    {"ADAT", CommandKind::Refused},
    {"PBSZ", CommandKind::Refused},
    {"PROT", CommandKind::Refused},
    {"CCC", CommandKind::Refused},
    {"CONF", CommandKind::Refused},
    {"ENC", CommandKind::Refused},
    {"MIC", CommandKind::Refused},
    {"REIN", CommandKind::Refused},
};

bool IsLetter(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
}

} // namespace

std::string_view WithoutLineEnd(std::string_view line) {
    if (line.ends_with('\n'))
        line.remove_suffix(1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

CommandKind ClassifyCommand(std::string_view line) {
    line = WithoutLineEnd(line);
    // Some servers end a command at CR or NUL, and skip blanks and Telnet bytes before a verb.
    if (line.find_first_of(std::string_view("\r\n\0", 3)) != line.npos)
        return CommandKind::Malformed;
    const std::string_view verb = line.substr(0, line.find(' '));
    if (verb.empty() || !std::ranges::all_of(verb, IsLetter))
        return CommandKind::Malformed;
    for (const auto& [name, kind] : Verbs)
        if (EqualsIgnoringCase(verb, name))
            return kind;
    return CommandKind::Plain;
}

std::string LoggedCommand(std::string_view line) {
    line = WithoutLineEnd(line);
    for (const std::string_view secret : {"PASS", "ACCT"})
        if (StartsWithIgnoringCase(line, secret))
            return std::string(secret) + " ****";
    return MaskControls(line);
}

ReplyTracker::Line ReplyTracker::Track(std::string_view line) {
    constexpr std::size_t code_length = 3;
    const bool continues = line.size() > code_length && line[code_length] == '-';
    const std::string_view code = line.substr(0, code_length);
    if (code_.empty()) {
        kind_ = line.empty() ? '\n' : line[0];
        if (!continues || !std::ranges::all_of(code, IsDigit))
            return {true, kind_};
        code_ = code;
        return {false, kind_};
    }
    const bool ends = code == code_ && !continues;
    if (ends)
        code_.clear();
    return {ends, kind_};
}

bool IsPassiveReply(std::string_view line) {
    return line.starts_with("227");
}

namespace {

// Consumes a number from 0 to 255, with a comma before it unless it is the `first`.
std::optional<unsigned> ConsumeByte(std::string_view& text, bool first) {
    if (!first && !ConsumePrefix(text, ","))
        return std::nullopt;
    const std::optional<unsigned> number = ConsumeNumber<unsigned>(text);
    return number && *number <= 0xFF ? number : std::nullopt;
}

} // namespace

std::optional<std::uint16_t> ParsePassivePort(std::string_view line) {
    if (!ConsumePrefix(line, "227 "))
        return std::nullopt;
    line.remove_prefix(std::min(line.find_first_of("0123456789"), line.size()));
    std::array<unsigned, 6> numbers{};
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const std::optional<unsigned> number = ConsumeByte(line, i == 0);
        if (!number)
            return std::nullopt;
        numbers[i] = *number;
    }
    const unsigned port = numbers[4] << 8 | numbers[5];
    return port != 0 ? std::optional(static_cast<std::uint16_t>(port)) : std::nullopt;
}

std::string FormatPassiveReply(std::uint32_t address, std::uint16_t port) {
    return FormatText("227 Entering Passive Mode (%u,%u,%u,%u,%d,%d).\r\n", address >> 24, address >> 16 & 0xFF,
                      address >> 8 & 0xFF, address & 0xFF, port >> 8, port & 0xFF);
}

} // namespace tls
