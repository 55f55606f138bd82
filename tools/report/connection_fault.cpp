#include "connection_fault.h"

#include <algorithm>
#include <array>

#include "display.h"
#include "text.h"

namespace report {

namespace {

struct Wording {
    const char* what;
    const char* advice;
};
constexpr std::array<Wording, 4> Wordings{
    {{"connection lost", "run again"},
     {"server silent for too long", "run again, with a longer --timeout if the server needs it"},
     {"server not reached", "check its name, the network and its FTP service, then run again"},
     {"data connection refused", "open the server's passive ports in the firewall, then run again"}}};

const Wording& WordingOf(FaultKind kind) {
    return Wordings[static_cast<std::size_t>(kind)];
}

struct FaultRule {
    std::string_view beginning, end; // of the message
    FaultKind kind;
};
constexpr FaultRule FaultRules[] = {
    {"", "can't connect data port", FaultKind::DataRefused},
    {"connect(, ", "", FaultKind::Unreachable},
    {"gethostbyname(", "", FaultKind::Unreachable},
    {"", "open control connection", FaultKind::Unreachable}, // couldn't open, can't reopen
    {"Timeout limit reached", "", FaultKind::Silent},
    {"poll(): timedout on control read", "", FaultKind::Silent},
    {"poll(): timedout on data write", "", FaultKind::Silent},
    {"poll(): revents", "", FaultKind::Lost},
    {"", "control connection closed", FaultKind::Lost},
    {"control connection gone", "", FaultKind::Lost},
    {"", "bytes of replies to one command", FaultKind::Lost},
    {"recovering checkpoint", "", FaultKind::Lost},
    {"can't recover checkpoint", "", FaultKind::Lost},
    {"jump buffer invalid", "", FaultKind::Lost},
    {"", ": Connection reset by peer", FaultKind::Lost},
    {"", ": Broken pipe", FaultKind::Lost},
    {"", ": Connection timed out", FaultKind::Lost},
    {"", ": No route to host", FaultKind::Lost},
    {"", ": Network is unreachable", FaultKind::Lost},
};

std::string HowItEnded(const ConnectionFault& fault) {
    if (fault.recovered)
        return "recovered by itself";
    return WordingOf(fault.kind).advice;
}

std::string WhatAndWhen(const ConnectionFault& fault, int first) {
    return WordingOf(fault.kind).what + (" at " + ShowTime(first + fault.time));
}

} // namespace

std::optional<FaultKind> FaultKindOf(std::string_view message) {
    for (const FaultRule& rule : FaultRules)
        if (message.starts_with(rule.beginning) && message.ends_with(rule.end))
            return rule.kind;
    return std::nullopt;
}

void AddToFault(ConnectionFault& fault, FaultKind kind, std::string_view message, std::string_view line) {
    if (fault.lines.empty() || kind == FaultKind::DataRefused) // which follows a message like Unreachable's
        fault.kind = kind;
    fault.attempts += message == "recovering checkpoint" ? 1 : 0;
    if (fault.lines.size() < ConnectionFault::MostLines)
        fault.lines.emplace_back(line.substr(0, ConnectionFault::LongestLine));
}

std::string FaultReason(const ConnectionFault& fault, int first) {
    return WhatAndWhen(fault, first) + "; " + HowItEnded(fault);
}

std::string FaultText(const ConnectionFault& fault, int first) {
    std::string text = WhatAndWhen(fault, first);
    text.front() = ToUpper(text.substr(0, 1)).front();
    if (!fault.during.empty())
        text += " during " + fault.during;
    if (fault.attempts > 1)
        text += FormatText(" (%llu attempts to reconnect)", static_cast<unsigned long long>(fault.attempts));
    return text + "; " + HowItEnded(fault);
}

} // namespace report
