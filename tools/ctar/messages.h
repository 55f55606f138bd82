// Text that ctar writes: names made harmless, offsets, messages, and whether all of the output arrived.

#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

// What ends a command with CannotWork: "what: why".
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What ends a command whose standard output has failed, so that going on is in vain; OutputArrived() has complained.
struct OutputLost : std::exception {};

// "what: " and the text of errno.
std::string WithReason(const std::string& what);

// The bytes with the backslash and all that is no printable ASCII character as \xHH. Different bytes give different
// texts, and none can steer a terminal or break a line.
std::string Escape(std::string_view bytes);
// The bytes that Escape() gives `text` for. Other text gives bytes that it gives something else for.
std::string Unescape(std::string_view text);

// "1 entry", "2 entries"
std::string Counted(std::int64_t number, const char* one, const char* more);

// The bytes as one word for a shell (bash and its kin).
std::string ShellWord(const std::string& bytes);

// "0x400 (1024)"
std::string OffsetText(std::int64_t offset);

// Writes "ctar: text" to standard error.
void Complain(const std::string& text);

// Whether all that was written to standard output has arrived; complains when not.
bool OutputArrived();
void RequireOutput(); // throws OutputLost when not
