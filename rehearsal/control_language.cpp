#include "control_language.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "text.h"
#include "texts.h"

namespace rehearsal {

namespace {

class Parser {
public:
    explicit Parser(const std::string& line) : rest_(line) {}
    Command Parse();

private:
    std::string ParseWord();
    std::string ParseString();
    Value ParseValue();
    std::vector<Value> ParseList(); // from the opening to the closing parenthesis, both included

    std::string_view rest_;
};

std::string Parser::ParseWord() {
    const std::size_t length = std::min(rest_.find_first_of(" ()'"), rest_.size());
    const std::string word = ToUpper(std::string(rest_.substr(0, length)));
    rest_.remove_prefix(length);
    return word;
}

std::string Parser::ParseString() {
    std::string text;
    rest_.remove_prefix(1);
    for (;;) {
        const std::size_t length = rest_.find('\'');
        if (length == std::string_view::npos)
            throw EscapeMessage{text::NoApostrophe};
        text += rest_.substr(0, length);
        rest_.remove_prefix(length + 1);
        if (!ConsumePrefix(rest_, "'"))
            return text;
        text += '\'';
    }
}

Value Parser::ParseValue() {
    if (rest_.starts_with('\''))
        return {Value::Kind::String, ParseString(), {}};
    if (!rest_.starts_with('('))
        return {Value::Kind::Word, ParseWord(), {}};
    return {Value::Kind::List, "", ParseList()};
}

std::vector<Value> Parser::ParseList() {
    std::vector<Value> values;
    rest_.remove_prefix(1);
    for (SkipSpace(rest_); !rest_.starts_with(')'); SkipSpace(rest_)) {
        if (rest_.empty())
            throw EscapeMessage{text::NoParenthesis};
        values.push_back(ParseValue());
    }
    rest_.remove_prefix(1);
    return values;
}

Command Parser::Parse() {
    Command command;
    SkipSpace(rest_);
    command.name = ParseWord();
    for (SkipSpace(rest_); !rest_.empty(); SkipSpace(rest_)) {
        const std::string keyword = ParseWord();
        if (keyword.empty() || !rest_.starts_with('('))
            throw EscapeMessage{Substitute(text::BadSyntax, {command.name})};
        if (!command.parameters.emplace(keyword, ParseList()).second)
            throw EscapeMessage{Substitute(text::TwiceKeyword, {keyword})};
    }
    return command;
}

} // namespace

Command ParseCommand(const std::string& line) {
    return Parser(line).Parse();
}

std::string Command::SingleValue(const std::string& keyword, const std::string& absent) const {
    const auto found = parameters.find(keyword);
    if (found == parameters.end())
        return absent;
    if (found->second.size() != 1 || found->second[0].kind == Value::Kind::List)
        throw EscapeMessage{Substitute(text::BadValue, {"", keyword})};
    return found->second[0].text;
}

namespace {

// The three numbers of "V5R4M0", so that V10R1M0 compares as later than V7R5M0.
std::array<int, 3> ReleaseNumbers(std::string_view release) {
    std::array<int, 3> numbers{};
    for (int& number : numbers) {
        while (!release.empty() && !IsDigit(release.front()))
            release.remove_prefix(1);
        number = ConsumeNumber<int>(release).value_or(0);
    }
    return numbers;
}

void CheckKnown(const Command& command, const std::string& name, const std::vector<Keyword>& keywords,
                const std::string& release) {
    const auto known =
        std::find_if(keywords.begin(), keywords.end(), [&](const Keyword& keyword) { return keyword.name == name; });
    if (known == keywords.end() || (known->since && ReleaseNumbers(release) < ReleaseNumbers(known->since)))
        throw EscapeMessage{Substitute(text::NoKeyword, {name})};
    if (known->values && !IsListed(command.SingleValue(name), known->values))
        throw EscapeMessage{Substitute(text::BadValue, {command.SingleValue(name), name})};
}

} // namespace

void CheckKeywords(const Command& command, const std::vector<Keyword>& keywords, const std::string& release) {
    for (const auto& parameter : command.parameters)
        CheckKnown(command, parameter.first, keywords, release);
    for (const Keyword& keyword : keywords)
        if (keyword.required && !command.Has(keyword.name))
            throw EscapeMessage{Substitute(text::WantsParameter, {keyword.name})};
}

void CheckName(const std::string& name, const std::string& keyword) {
    constexpr std::string_view first = "ABCDEFGHIJKLMNOPQRSTUVWXYZ$#@";
    constexpr std::string_view other = "ABCDEFGHIJKLMNOPQRSTUVWXYZ$#@0123456789_.";
    if (name.empty() || name.size() > 10 || first.find(name[0]) == std::string_view::npos ||
        name.find_first_not_of(other) != std::string::npos)
        throw EscapeMessage{Substitute(text::BadName, {name, keyword})};
}

namespace {

// The path in a string value: the whole string, or what is between double quotes (doubled inside).
std::string QuotedPath(const std::string& text) {
    if (!text.starts_with('"'))
        return text;
    std::string path;
    std::size_t at = 1;
    for (; at < text.size() && (text[at] != '"' || text.substr(at, 2) == "\"\""); at++) {
        path += text[at];
        at += text[at] == '"';
    }
    if (at + 1 != text.size())
        throw EscapeMessage{Substitute(text::BadValue, {text, "OBJ"})};
    return path;
}

ObjectElement ToElement(const Value& value) {
    const std::vector<Value> items = value.kind == Value::Kind::List ? value.items : std::vector{value};
    const auto is = [&](std::size_t index, Value::Kind kind) { return items[index].kind == kind; };
    ObjectElement element;
    bool good = !items.empty() && items.size() <= 3 && is(0, Value::Kind::String);
    if (good)
        element.path = QuotedPath(items[0].text);
    if (good && items.size() > 1) {
        element.omit = items[1].text == "*OMIT";
        good = is(1, Value::Kind::Word) && (element.omit || items[1].text == "*INCLUDE");
    }
    if (good && items.size() > 2) {
        element.new_name = QuotedPath(items[2].text);
        good = !element.omit && (is(2, Value::Kind::String) || items[2].text == "*SAME");
        if (is(2, Value::Kind::Word))
            element.new_name.clear();
    }
    if (!good)
        throw EscapeMessage{Substitute(text::BadValue, {items.empty() ? "" : items.back().text, "OBJ"})};
    return element;
}

} // namespace

std::vector<ObjectElement> ObjectElements(const Command& command) {
    std::vector<ObjectElement> elements;
    for (const Value& value : command.parameters.at("OBJ"))
        elements.push_back(ToElement(value));
    return elements;
}

} // namespace rehearsal
