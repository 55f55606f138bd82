// Control language commands, as RCMD delivers them: NAME KEYWORD(value ...) in any order. A value is a word, a string
// between apostrophes (doubled inside it) or a list of values in parentheses. Every error is thrown as an
// EscapeMessage. Pure functions, for any thread.

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace rehearsal {

constexpr std::size_t CommandLimit = 1000; // longest command that RCMD accepts, in characters

// Thrown when a command fails; `text` is the message for the client.
struct EscapeMessage {
    std::string text;
};

struct Value {
    enum class Kind { Word, String, List };
    Kind kind = Kind::Word;
    std::string text;         // words in upper case, strings without their apostrophes
    std::vector<Value> items; // of a list
};

struct Command {
    std::string name;
    std::map<std::string, std::vector<Value>> parameters; // by keyword

    bool Has(const std::string& keyword) const { return parameters.contains(keyword); }
    // The only word or string of a parameter, or `absent` when the command does not have the parameter. Throws
    // EscapeMessage when the value is anything else.
    std::string SingleValue(const std::string& keyword, const std::string& absent = "") const;
};

// A keyword in the definition of a command.
struct Keyword {
    const char* name;
    bool required = false;
    const char* values = nullptr; // the allowed words, separated by blanks; nullptr: any value
    const char* since = nullptr;  // first release that has the keyword; nullptr: all of them
};

// Throws EscapeMessage.
Command ParseCommand(const std::string& line);

// Throws EscapeMessage when the parameters do not match the definition of the command in `release`.
void CheckKeywords(const Command& command, const std::vector<Keyword>& keywords, const std::string& release);

// Throws EscapeMessage unless `name` is a valid object name: at most 10 characters, the first a letter or one of $#@.
void CheckName(const std::string& name, const std::string& keyword);

// An element of an OBJ parameter: a path to save, restore or omit.
struct ObjectElement {
    std::string path;
    bool omit = false;
    std::string new_name; // path to restore to; empty: the same path
};

// The elements of OBJ. Paths are returned as written, without the double quotes around them. Throws EscapeMessage.
std::vector<ObjectElement> ObjectElements(const Command& command);

} // namespace rehearsal
