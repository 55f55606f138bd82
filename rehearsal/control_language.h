// Control language commands as RCMD brings them: NAME KEYWORD(value ...) in any order, values being words,
// strings between apostrophes (an apostrophe inside stands twice) or parenthesised lists of values. What is
// not right ends in an Escape, the message that the server would send.

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace rehearsal {

constexpr std::size_t CommandLimit = 1000; // characters of a command that RCMD takes

// A command has failed; `text` is why, as the client is told.
struct Escape {
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
    // The one word or string of a parameter, or `absent` without it. Throws Escape when it is anything else.
    std::string One(const std::string& keyword, const std::string& absent = "") const;
};

struct Keyword {
    const char* name;
    bool required = false;
    const char* values = nullptr; // the words it can have, with blanks between; none: not checked here
    const char* since = nullptr;  // the first release that knows it; none: all do
};

// Takes a command apart. Throws Escape.
Command ParseCommand(const std::string& line);

// Throws Escape when the keywords of `command` are not those of its definition on a server of `release`.
void CheckKeywords(const Command& command, const std::vector<Keyword>& keywords, const std::string& release);

// Throws Escape unless `name` can name an object: 10 characters at most, a letter or one of $#@ first.
void CheckName(const std::string& name, const std::string& keyword);

// An element of an OBJ parameter: a path, saved or restored or left out, perhaps under another name.
struct ObjectElement {
    std::string path;
    bool omit = false;
    std::string new_name; // empty: the same
};

// The elements of OBJ. Paths come as written, without the double quotes around them. Throws Escape.
std::vector<ObjectElement> ObjectElements(const Command& command);

} // namespace rehearsal
