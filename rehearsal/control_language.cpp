#include "control_language.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <string_view>

#include "texts.h"

namespace rehearsal {

// ---- parser

namespace {

class Parser {
public:
    explicit Parser(const std::string& line) : rest_(line) {}
    Command Parse();

private:
    void SkipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size())); }
    std::string Word();
    std::string String();
    Value One();
    std::vector<Value> Values(); // up to and with the closing parenthesis

    std::string_view rest_;
    std::string name_;
};

std::string Parser::Word() {
    const std::size_t length = std::min(rest_.find_first_of(" ()'"), rest_.size());
    const std::string word = Upper(std::string(rest_.substr(0, length)));
    rest_.remove_prefix(length);
    return word;
}

std::string Parser::String() {
    std::string text;
    rest_.remove_prefix(1);
    for (;;) {
        const std::size_t length = rest_.find('\'');
        if (length == std::string_view::npos)
            throw Escape{text::NoApostrophe};
        text += rest_.substr(0, length);
        rest_.remove_prefix(length + 1);
        if (!rest_.starts_with('\''))
            return text;
        text += '\'';
        rest_.remove_prefix(1);
    }
}

Value Parser::One() {
    if (rest_.starts_with('\''))
        return {Value::Kind::String, String(), {}};
    if (!rest_.starts_with('('))
        return {Value::Kind::Word, Word(), {}};
    return {Value::Kind::List, "", Values()};
}

std::vector<Value> Parser::Values() {
    std::vector<Value> values;
    rest_.remove_prefix(1);
    for (SkipBlanks(); !rest_.starts_with(')'); SkipBlanks()) {
        if (rest_.empty())
            throw Escape{text::NoParenthesis};
        values.push_back(One());
    }
    rest_.remove_prefix(1);
    return values;
}

Command Parser::Parse() {
    Command command;
    SkipBlanks();
    command.name = Word();
    for (SkipBlanks(); !rest_.empty(); SkipBlanks()) {
        const std::string keyword = Word();
        if (keyword.empty() || !rest_.starts_with('('))
            throw Escape{Fill(text::BadSyntax, {command.name})};
        if (!command.parameters.emplace(keyword, Values()).second)
            throw Escape{Fill(text::TwiceKeyword, {keyword})};
    }
    return command;
}

} // namespace

Command ParseCommand(const std::string& line) {
    return Parser(line).Parse();
}

std::string Command::One(const std::string& keyword, const std::string& absent) const {
    const auto found = parameters.find(keyword);
    if (found == parameters.end())
        return absent;
    if (found->second.size() != 1 || found->second[0].kind == Value::Kind::List)
        throw Escape{Fill(text::BadValue, {"", keyword})};
    return found->second[0].text;
}

// ---- definitions

namespace {

// "V5R4M0" as its numbers, so that V10R1M0 is later than V7R5M0.
std::array<int, 3> ReleaseNumbers(std::string_view release) {
    std::array<int, 3> numbers{};
    for (int& number : numbers) {
        release.remove_prefix(std::min(release.find_first_of("0123456789"), release.size()));
        const auto end = std::from_chars(release.data(), release.data() + release.size(), number).ptr;
        release.remove_prefix(static_cast<std::size_t>(end - release.data()));
    }
    return numbers;
}

bool IsListed(const std::string& word, const char* words) {
    std::istringstream stream(words);
    for (std::string each; stream >> each;)
        if (each == word)
            return true;
    return false;
}

void CheckKnown(const Command& command, const std::string& name, const std::vector<Keyword>& keywords,
                const std::string& release) {
    const auto known =
        std::find_if(keywords.begin(), keywords.end(), [&](const Keyword& keyword) { return keyword.name == name; });
    if (known == keywords.end() || (known->since && ReleaseNumbers(release) < ReleaseNumbers(known->since)))
        throw Escape{Fill(text::NoKeyword, {name})};
    if (known->values && !IsListed(command.One(name), known->values))
        throw Escape{Fill(text::BadValue, {command.One(name), name})};
}

} // namespace

void CheckKeywords(const Command& command, const std::vector<Keyword>& keywords, const std::string& release) {
    for (const auto& parameter : command.parameters)
        CheckKnown(command, parameter.first, keywords, release);
    for (const Keyword& keyword : keywords)
        if (keyword.required && !command.Has(keyword.name))
            throw Escape{Fill(text::WantsParameter, {keyword.name})};
}

void CheckName(const std::string& name, const std::string& keyword) {
    constexpr std::string_view first = "ABCDEFGHIJKLMNOPQRSTUVWXYZ$#@";
    constexpr std::string_view other = "ABCDEFGHIJKLMNOPQRSTUVWXYZ$#@0123456789_.";
    if (name.empty() || name.size() > 10 || first.find(name[0]) == std::string_view::npos ||
        name.find_first_not_of(other) != std::string::npos)
        throw Escape{Fill(text::BadName, {name, keyword})};
}

// ---- OBJ

namespace {

// The path in a string value: between double quotes, where a double quote stands twice, or as it is.
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
        throw Escape{Fill(text::BadValue, {text, "OBJ"})};
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
        throw Escape{Fill(text::BadValue, {items.empty() ? "" : items.back().text, "OBJ"})};
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
