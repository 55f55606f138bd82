#include "log_line.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <optional>

namespace {

bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

void SkipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

constexpr double Largest = 1e18; // beyond it no run can mean a number

// A number at the front, without a sign. Nothing when there is none, or one that no run can mean.
std::optional<double> TakeNumber(std::string_view& text) {
    SkipBlanks(text);
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc() || !(number >= 0 && number <= Largest))
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

// "[hh:mm:ss] [Tnn] ", nn of two to six digits.
bool TakeTag(std::string_view& text, LogLine& line) {
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
    const auto [end, error] = std::from_chars(text.data() + from, text.data() + to, line.thread);
    if (error != std::errc() || end != text.data() + to)
        return false;
    line.time = hour * 3600 + minute * 60 + second;
    text.remove_prefix(to + 2);
    return true;
}

// What follows a fixed beginning.
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
    {"Size: ", LineKind::ObjectBytes, Value::Decimal},
    {"Save: ", LineKind::SaveTime, Value::Number},
    {"Wait: ", LineKind::WaitTime, Value::Number},
    {"Xfer: ", LineKind::TransferTime, Value::Number},
    {"usage: ", LineKind::Refused},
    {"Object not found: ", LineKind::NotFound, Value::Text},
    {"Block returned no data", LineKind::NoData},
    {"Building Object Lists", LineKind::Listing},
    {"Building Block Lists", LineKind::Listed},
    {"Archive  : ", LineKind::Entry, Value::Text},
    {"Object   : ", LineKind::Silent},
    {"Restore Success: ", LineKind::Restored, Value::Text},
    {"Transfer : ", LineKind::TransferTime, Value::Number},
    {"Restore  : ", LineKind::RestoreTime, Value::Number},
    {"Restored ", LineKind::AllRestored, Value::Decimal, Total::Bytes},
    {"** Thread ", LineKind::WorkerDone},
    {"** Backup Complete", LineKind::Complete},
    {"** No objects attempted", LineKind::NothingToDo},
    {"** Total Blocks ", LineKind::Silent}, // a worker's share of the objects
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

// "6.864 KB" in whole bytes, as far as the rounding lets them be known: the letter is a blank for none.
std::optional<double> TakeAmount(std::string_view text, double step) {
    const std::optional<double> number = TakeNumber(text);
    if (!number)
        return std::nullopt;
    SkipBlanks(text);
    const char unit = text.empty() ? 'B' : text.front();
    const int power = unit == 'k' || unit == 'K' ? 1 : unit == 'M' ? 2 : unit == 'G' ? 3 : 0;
    const double bytes = std::round(*number * std::pow(step, power));
    return bytes <= Largest ? std::optional(bytes) : std::nullopt;
}

bool ApplyRule(const Rule& rule, std::string_view rest, LogLine& line) {
    std::optional<double> number = 0.0;
    if (rule.value == Value::Number)
        number = TakeNumber(rest);
    else if (rule.value == Value::Decimal)
        number = TakeAmount(rest, 1000);
    else if (rule.value == Value::Binary)
        number = TakeAmount(rest, 1024);
    if (!number)
        return false;
    line.kind = rule.kind;
    line.total = rule.total;
    line.number = *number;
    line.text = rule.value == Value::Text ? rest : std::string_view();
    return true;
}

// Commands. Of PASS nothing is kept but that it was sent.

struct Command {
    std::string_view beginning;
    std::string_view doing;
    std::string_view before_object; // "" when the command does not name it, or all of it is a constant
    std::string_view after_object;
};

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
    {"PASS ", "logging in", "", ""},
};

// The object that a command names, as it stands there.
std::string_view ObjectOf(const Command& command, std::string_view text) {
    if (command.before_object.starts_with('/'))
        return command.before_object;
    if (command.before_object.empty())
        return {};
    const std::size_t from = text.find(command.before_object);
    if (from == text.npos)
        return {};
    text.remove_prefix(from + command.before_object.size());
    return command.after_object.empty() ? text : text.substr(0, text.find(command.after_object));
}

void ParseCommand(std::string_view text, LogLine& line) {
    line.kind = LineKind::Silent;
    for (const Command& command : Commands) {
        if (!text.starts_with(command.beginning))
            continue;
        line.kind = LineKind::Sent;
        line.detail = command.doing;
        line.text = ObjectOf(command, text.ends_with('"') ? text.substr(0, text.size() - 1) : text);
        return;
    }
}

// Messages

// What -v4 and -v5 tell of waits and blocks; no failures.
bool IsChatter(std::string_view text) {
    return text.ends_with("looking for completion reply") || text.starts_with("looking for more") ||
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

// Cuts "program[module.cpp,line]: ", "program[module.cpp:line] : " or "program: " off. The program may have been
// given another name.
bool TakeHead(std::string_view& text) {
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
    if (TakePrefix(text, "sent command \"")) {
        ParseCommand(text, line);
    } else if (text.find(" Terminated Cleanly") != text.npos) {
        line.kind = LineKind::Terminated;
    } else if (text.starts_with("failed to restore object at")) {
        line.kind = LineKind::EntryFailed;
    } else if (text.starts_with('/') && (text.ends_with(": excluded") || text.ends_with(": not included"))) {
        line.kind = LineKind::LeftOut;
        line.text = text.substr(0, text.rfind(": "));
    } else if (IsChatter(text) || text.starts_with("excluding ") || text.starts_with("FTP control connected")) {
        line.kind = LineKind::Silent;
    } else {
        line.kind = LineKind::Message;
        line.text = text;
        line.fatal = IsFatal(text);
    }
}

// "93.509 MB/s": how fast the whole restore was.
bool IsRate(std::string_view text) {
    constexpr std::size_t longest_unit = 5;
    return TakeNumber(text) && text.size() <= longest_unit && text.ends_with("B/s");
}

// "NAME: 3 objects not saved", and of a library its name and the server's reply.
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

} // namespace

LogLine ParseLogLine(std::string_view text) {
    LogLine line;
    if (!TakeTag(text, line)) {
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
        line.kind = LineKind::Silent;
    else if (!ParsePartialSave(text, line) && TakeHead(text))
        ParseMessage(text, line);
    return line;
}
