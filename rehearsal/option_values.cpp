#include "option_values.h"

#include <algorithm>
#include <limits>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "text.h"
#include "texts.h"

namespace rehearsal {

std::uint16_t ParsePort(std::string_view text) {
    const auto port = ParseNumber<std::uint16_t>(text);
    if (!port)
        throw UsageError{"not a port: " + std::string(text)};
    return *port;
}

std::string ParseAddress(std::string_view text) {
    std::string address(text);
    in_addr ignored{};
    if (::inet_pton(AF_INET, address.c_str(), &ignored) != 1)
        throw UsageError{"not an IPv4 address: " + address};
    return address;
}

std::string ParsePath(std::string_view text) {
    if (!text.starts_with('/'))
        throw UsageError{"not an absolute path: " + std::string(text)};
    return std::string(text);
}

std::uint64_t ParseBytes(std::string_view text) {
    constexpr std::string_view units = "KMG";
    std::string_view rest = text;
    const std::uint64_t number = ConsumeNumber<std::uint64_t>(rest).value_or(0);
    const std::size_t unit = rest.size() == 1 ? units.find(ToUpper(std::string(rest))) : units.npos;
    const std::size_t shift = rest.empty() ? 0 : 10 * (unit + 1);
    if (number == 0 || (!rest.empty() && unit == units.npos) ||
        number > std::numeric_limits<std::uint64_t>::max() >> shift)
        throw UsageError{"not a number of bytes: " + std::string(text)};
    return number << shift;
}

namespace {

struct FaultKind {
    const char* name;
    Fault::Kind kind;
    const char* parameters;         // that may be given, separated by blanks
    const char* required = nullptr; // the one that must be given
    const char* commands = nullptr; // the only verbs that it can happen to; nullptr: any
};

constexpr char Transfers[] = "LIST RETR STOR";

constexpr FaultKind FaultKinds[] = {
    {"replace", Fault::Kind::Replace, "nth reply text", "text"},
    {"pieces", Fault::Kind::Pieces, "nth reply cuts pause", "cuts"},
    {"close", Fault::Kind::Close, "nth reply bytes"},
    {"reset", Fault::Kind::Reset, "nth reply bytes"},
    {"close-after", Fault::Kind::CloseAfter, "nth reply"},
    {"silent", Fault::Kind::Silent, "nth reply pause"},
    {"flood", Fault::Kind::Flood, "nth reply text pause"},
    {"data-refuse", Fault::Kind::DataRefuse, "nth", nullptr, "PASV"},
    {"data-close", Fault::Kind::DataClose, "nth bytes", nullptr, Transfers},
    {"data-reset", Fault::Kind::DataReset, "nth bytes", nullptr, Transfers},
    {"data-silent", Fault::Kind::DataSilent, "nth bytes", nullptr, Transfers},
    {"data-cut-record", Fault::Kind::DataCutRecord, "nth bytes", nullptr, Transfers},
    {"data-no-notify", Fault::Kind::DataNoNotify, "nth", nullptr, Transfers},
    {"data-no-resume", Fault::Kind::DataNoResume, "nth", nullptr, Transfers},
};

const FaultKind& FindKind(std::string_view name) {
    const auto* const found = std::find_if(std::begin(FaultKinds), std::end(FaultKinds),
                                           [&](const FaultKind& each) { return each.name == name; });
    if (found == std::end(FaultKinds))
        throw UsageError{"unknown kind of fault: " + std::string(name)};
    return *found;
}

// The text up to the closing double quote. Requires: the opening one has been consumed.
std::string ConsumeQuoted(std::string_view& text) {
    constexpr std::string_view letters = "rn\"\\", meanings = "\r\n\"\\";
    std::string value;
    while (!text.empty() && text[0] != '"') {
        const std::size_t letter = text[0] == '\\' ? letters.find(text.substr(1, 1)) : letters.npos;
        const bool escaped = letter < letters.size() && text.size() > 1;
        if (text[0] == '\\' && !escaped)
            throw UsageError{"unknown escape: " + std::string(text.substr(0, 2))};
        value += escaped ? meanings[letter] : text[0];
        text.remove_prefix(escaped ? 2 : 1);
    }
    if (!ConsumePrefix(text, "\""))
        throw UsageError{"closing quote missing"};
    if (!text.empty() && !IsSpace(text[0]))
        throw UsageError{"blank missing after closing quote"};
    return value;
}

std::string ConsumeValue(std::string_view& text) {
    if (ConsumePrefix(text, "\""))
        return ConsumeQuoted(text);
    return text.empty() || IsSpace(text[0]) ? "" : std::string(ConsumeField(text));
}

// Consumes the name of a parameter and its equals sign. Returns nothing when the text does not begin with a parameter.
std::string_view ConsumeParameterName(std::string_view& text) {
    for (const std::string_view name : {"nth", "reply", "bytes", "text", "cuts", "pause"})
        if (text.starts_with(name) && text.substr(name.size()).starts_with('=')) {
            text.remove_prefix(name.size() + 1);
            return name;
        }
    return {};
}

// Consumes the command and the name of the first parameter, which ends it.
std::string ConsumeCommand(std::string_view& text, std::string_view& name) {
    SkipSpace(text);
    std::string command;
    if (ConsumePrefix(text, "\""))
        command = ConsumeQuoted(text);
    for (SkipSpace(text); !text.empty() && (name = ConsumeParameterName(text)).empty(); SkipSpace(text))
        command.append(command.empty() ? "" : " ").append(ConsumeField(text));
    if (command.empty())
        throw UsageError{"command missing"};
    return command == "greeting" ? "" : command;
}

std::uint64_t ParseCount(std::string_view text, std::uint64_t limit) {
    const auto number = ParseNumber<std::uint64_t>(text);
    if (!number || *number > limit)
        throw UsageError{"not a number, or too large: " + std::string(text)};
    return *number;
}

int ParseInt(std::string_view text, int limit = std::numeric_limits<int>::max()) {
    return static_cast<int>(ParseCount(text, static_cast<unsigned>(limit)));
}

std::vector<std::size_t> ParseOffsets(std::string_view text) {
    std::vector<std::size_t> offsets;
    for (;;) {
        const std::size_t end = std::min(text.find(','), text.size());
        offsets.push_back(ParseCount(text.substr(0, end), std::numeric_limits<std::size_t>::max()));
        if (end == text.size())
            break;
        text.remove_prefix(end + 1);
    }
    if (!std::is_sorted(offsets.begin(), offsets.end()))
        throw UsageError{"offsets must ascend"};
    return offsets;
}

void SetParameter(Fault& fault, std::string_view name, const std::string& value) {
    if (name == "nth")
        fault.nth = ParseInt(value);
    else if (name == "reply")
        fault.reply = ParseInt(value, 1);
    else if (name == "bytes")
        fault.bytes = value == "0" ? 0 : ParseBytes(value);
    else if (name == "cuts")
        fault.cuts = ParseOffsets(value);
    else if (name == "pause")
        fault.pause_ms = ParseInt(value);
    else
        fault.text = value;
}

} // namespace

Fault ParseFault(std::string_view text) {
    const FaultKind& kind = FindKind(ConsumeField(text));
    Fault fault;
    fault.kind = kind.kind;
    std::string_view name;
    fault.command = ConsumeCommand(text, name);
    std::string_view command = fault.command;
    if (kind.commands && !IsListed(ConsumeField(command), kind.commands))
        throw UsageError{std::string(kind.name) + " happens only to " + kind.commands};
    bool complete = kind.required == nullptr;
    for (; !name.empty(); SkipSpace(text), name = ConsumeParameterName(text)) {
        if (!IsListed(name, kind.parameters))
            throw UsageError{std::string(kind.name) + " has no " + std::string(name) + "="};
        SetParameter(fault, name, ConsumeValue(text));
        complete = complete || name == kind.required;
    }
    if (!text.empty())
        throw UsageError{"unknown parameter: " + std::string(text)};
    if (!complete)
        throw UsageError{std::string(kind.name) + " needs " + kind.required + "="};
    return fault;
}

} // namespace rehearsal
