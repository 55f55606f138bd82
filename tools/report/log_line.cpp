#include "log_line.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>

#include "text.h"

namespace report {

namespace {

constexpr double LargestNumber = 1e18; // more than any run can reach

// White space and a number without a sign. Nothing when there is none, or when it is implausibly large.
std::optional<double> ConsumeAmount(std::string_view& text) {
    SkipSpace(text);
    const std::optional<double> number = ConsumeNumber<double>(text);
    const bool plausible = number && *number >= 0 && *number <= LargestNumber; // a NaN is not
    return plausible ? number : std::nullopt;
}

// "[hh:mm:ss] [Tnn] ", where nn has two to six digits.
bool ConsumeTag(std::string_view& text, LogLine& line) {
    constexpr std::string_view shape = "[00:00:00] [T00";
    constexpr std::size_t longest_number = 6;
    if (text.size() < shape.size())
        return false;
    for (std::size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == '0' ? !IsDigit(text[i]) : text[i] != shape[i])
            return false;
    const auto two_digits = [text](std::size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
    const int hour = two_digits(1);
    const int minute = two_digits(4);
    const int second = two_digits(7);
    if (hour > 23 || minute > 59 || second > 60) // 60 in a leap second
        return false;
    const std::size_t from = shape.size() - 2;
    const std::size_t to = text.find("] ", from);
    if (to == text.npos || to - from > longest_number)
        return false;
    const std::optional<int> thread = ParseNumber<int>(text.substr(from, to - from));
    if (!thread)
        return false;
    line.thread = *thread;
    line.time = hour * 3600 + minute * 60 + second;
    text.remove_prefix(to + 2);
    return true;
}

// What follows the fixed beginning of a line.
enum class Value { None, Text, Number, Decimal, Binary };

struct Rule {
    std::string_view beginning;
    LineKind kind;
    Value value = Value::None;
    Total total{};
};

constexpr Rule Rules[] = {
    {"Backup Success: ", LineKind::Saved, Value::Text},
    {"Backup Failure: ", LineKind::NotSaved, Value::Text},
    {"Size: ", LineKind::Size, Value::Decimal},
    {"Save: ", LineKind::SaveTime, Value::Number},
    {"Wait: ", LineKind::WaitTime, Value::Number},
    {"Xfer: ", LineKind::TransferTime, Value::Number},
    {"usage: ", LineKind::UsageError},
    {"Object not found: ", LineKind::NotFound, Value::Text},
    {"Block returned no data", LineKind::NoData},
    {"Building Object Lists", LineKind::ListingStarted},
    {"Building Block Lists", LineKind::SavingStarted},
    {"Archive  : ", LineKind::Entry, Value::Text},
    {"Object   : ", LineKind::Ignored},
    {"Restore Success: ", LineKind::Restored, Value::Text},
    {"Transfer : ", LineKind::TransferTime, Value::Number},
    {"Restore  : ", LineKind::RestoreTime, Value::Number},
    {"Restored ", LineKind::RestoreComplete, Value::Decimal, Total::Bytes},
    {"** Thread ", LineKind::WorkerDone},
    {"** Backup Complete", LineKind::BackupComplete},
    {"** No objects attempted", LineKind::NothingAttempted},
    {"** Total Blocks ", LineKind::Ignored}, // of one worker
    {"** Total List Data: ", LineKind::Total, Value::Binary, Total::ListBytes},
    {"** List Called    : ", LineKind::Total, Value::Number, Total::ListCalls},
    {"** Total List Time: ", LineKind::Total, Value::Number, Total::ListSeconds},
    {"** Objects Found  : ", LineKind::Total, Value::Number, Total::Found},
    {"** Parsing Errors : ", LineKind::Total, Value::Number, Total::ParsingErrors},
    {"** Backed up ", LineKind::Total, Value::Binary, Total::Bytes},
    {"** Total Save Time: ", LineKind::Total, Value::Number, Total::SaveSeconds},
    {"** Total Wait Time: ", LineKind::Total, Value::Number, Total::WaitSeconds},
    {"** Total Xfer Time: ", LineKind::Total, Value::Number, Total::TransferSeconds},
    {"** Total Objects Attempted: ", LineKind::Total, Value::Number, Total::Attempted},
    {"** Total Objects Failed   : ", LineKind::Total, Value::Number, Total::Failed},
    {"** Total Run Time: ", LineKind::Total, Value::Number, Total::RunSeconds},
};

// "6.864 KB" in whole bytes, as exact as its three decimals. Without a unit the letter is a blank.
std::optional<double> ParseBytes(std::string_view text, double step) {
    const std::optional<double> number = ConsumeAmount(text);
    if (!number)
        return std::nullopt;
    SkipSpace(text);
    const char unit = text.empty() ? 'B' : text.front();
    const int power = unit == 'k' || unit == 'K' ? 1 : unit == 'M' ? 2 : unit == 'G' ? 3 : 0;
    const double bytes = std::round(*number * std::pow(step, power));
    return bytes <= LargestNumber ? std::optional(bytes) : std::nullopt;
}

void ApplyRule(const Rule& rule, std::string_view rest, LogLine& line) {
    std::optional<double> number = 0.0;
    if (rule.value == Value::Number)
        number = ConsumeAmount(rest);
    else if (rule.value == Value::Decimal)
        number = ParseBytes(rest, 1000);
    else if (rule.value == Value::Binary)
        number = ParseBytes(rest, 1024);
    if (!number)
        return;
    line.kind = rule.kind;
    line.total = rule.total;
    line.number = *number;
    line.text = rule.value == Value::Text ? rest : std::string_view();
}

struct Command {
    std::string_view beginning;
    std::string_view doing;
    std::string_view before_name; // what precedes the name in the command; "" without a name, "/..." is the name itself
    std::string_view after_name;
};

// Commands that show what a worker is doing.
constexpr Command Commands[] = {
    {"RETR ", "fetching", "", ""},
    {"RCMD SAVLIB ", "saving", "LIB(", ")"},
    {"RCMD SAV ", "saving", "OBJ(('\"", "\"'"},
    {"RCMD SAVDLO ", "saving", "/QDLS", ""},
    {"RCMD SAVSECDTA ", "saving", "/Security Data", ""},
    {"RCMD SAVCFG ", "saving", "/System Configuration", ""},
    {"LIST ", "listing", " ", ""},
    {"STOR ", "sending", "", ""},
    {"RCMD RST", "restoring", "", ""},
    {"QUIT", "done", "", ""},
    {"USER ", "logging in", "", ""},
    {"PASS", "logging in", "", ""},
};

// The name in a command, as the command spells it.
std::string_view NameIn(const Command& command, std::string_view text) {
    if (command.before_name.starts_with('/'))
        return command.before_name;
    if (command.before_name.empty())
        return {};
    const std::size_t from = text.find(command.before_name);
    if (from == text.npos)
        return {};
    text.remove_prefix(from + command.before_name.size());
    return command.after_name.empty() ? text : text.substr(0, text.find(command.after_name));
}

void ParseCommand(std::string_view text, LogLine& line) {
    line.kind = LineKind::Ignored;
    for (const Command& command : Commands) {
        if (!text.starts_with(command.beginning))
            continue;
        line.kind = LineKind::Command;
        line.detail = command.doing;
        line.text = NameIn(command, text.ends_with('"') ? text.substr(0, text.size() - 1) : text);
        return;
    }
}

// Not failures: a minute of waiting, and what -v4 and -v5 report.
bool IsTrace(std::string_view text) {
    return text.starts_with("poll(): timedout after ") || text.starts_with("poll(): timedout on data read ") ||
           text.ends_with("looking for completion reply") || text.starts_with("looking for more") ||
           text.starts_with("callback gave us") ||
           (text.ends_with(" bytes to callback") && text.starts_with("sending ")) ||
           (text.ends_with(" bytes") && (text.starts_with("read(") || text.starts_with("write(")));
}

constexpr std::string_view FatalMessages[] = {"login failed",
                                              "couldn't open control connection",
                                              "out of memory",
                                              "BuildIncludeList failed",
                                              "open(",
                                              "fdatasync(",
                                              "write(catalog)",
                                              "write(not backed up)",
                                              "write(list)",
                                              "CTAR sentinel failed",
                                              "short header",
                                              "bad header checksum",
                                              "bad file size",
                                              "failed to restore authority",
                                              "don't know what to do"};

bool IsFatal(std::string_view text) {
    return std::any_of(std::begin(FatalMessages), std::end(FatalMessages),
                       [text](std::string_view fatal) { return text.starts_with(fatal); });
}

// "program[module.cpp,line]: ", "program[module.cpp:line] : " or "program: ". The program may have another name.
bool ConsumeHead(std::string_view& text) {
    constexpr std::size_t longest = 80;
    const std::size_t end = text.substr(0, longest).find(": ");
    if (end == text.npos || end == 0)
        return false;
    const std::string_view head = text.substr(0, end);
    const std::size_t blank = head.find_first_of(" /");
    if (blank != head.npos && !(head.ends_with("] ") && blank == head.size() - 1))
        return false;
    text.remove_prefix(end + 2);
    return true;
}

void ParseMessage(std::string_view text, LogLine& line) {
    if (ConsumePrefix(text, "sent command \"")) {
        ParseCommand(text, line);
    } else if (text.find(" Terminated Cleanly") != text.npos) {
        line.kind = LineKind::Terminated;
    } else if (text.starts_with("failed to restore object at")) {
        line.kind = LineKind::EntryFailed;
    } else if (text.starts_with('/') && (text.ends_with(": excluded") || text.ends_with(": not included"))) {
        line.kind = LineKind::LeftOut;
        line.text = text.substr(0, text.rfind(": "));
    } else if (IsTrace(text) || text.starts_with("excluding ") || text.starts_with("FTP control connected")) {
        line.kind = LineKind::Ignored;
    } else {
        line.kind = LineKind::Message;
        line.text = text;
        line.fatal = IsFatal(text);
    }
}

// "93.509 MB/s": the speed of a whole restore.
bool IsRate(std::string_view text) {
    constexpr std::size_t longest_unit = 5;
    return ConsumeAmount(text).has_value() && text.size() <= longest_unit && text.ends_with("B/s");
}

// "NAME: 3 objects not saved", or the name of a library and the server's reply.
bool ParsePartialSave(std::string_view text, LogLine& line) {
    std::size_t colon = text.npos;
    if (text.starts_with('/') && text.ends_with(" objects not saved"))
        colon = text.rfind(": ");
    else if (text.starts_with("/QSYS.LIB/"))
        colon = text.find(": ");
    if (colon == text.npos || colon + 2 >= text.size() || !IsDigit(text[colon + 2]))
        return false;
    line.kind = LineKind::SavedInPart;
    line.text = text.substr(0, colon);
    line.detail = text.substr(colon + 2);
    return true;
}

// The line up to the argument of PASS, wherever the command is in it: it may follow a line that was cut.
std::string_view WithoutPassphrase(std::string_view text) {
    constexpr std::string_view command = "sent command \"PASS";
    const std::size_t at = text.find(command);
    return at == text.npos ? text : text.substr(0, at + command.size());
}

} // namespace

LogLine ParseLogLine(std::string_view text) {
    LogLine line;
    text = line.whole = WithoutPassphrase(text);
    if (!ConsumeTag(text, line)) {
        line.kind = LineKind::Reply;
        line.text = text;
        return line;
    }
    for (const Rule& rule : Rules)
        if (text.starts_with(rule.beginning)) {
            ApplyRule(rule, text.substr(rule.beginning.size()), line);
            return line;
        }
    if (IsRate(text))
        line.kind = LineKind::Ignored;
    else if (!ParsePartialSave(text, line) && ConsumeHead(text))
        ParseMessage(text, line);
    return line;
}

} // namespace report
