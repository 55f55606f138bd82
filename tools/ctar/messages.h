// The text that ctar prints: escaped names, offsets, error messages, and the check that standard output was written.

#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ctar {

// Ends a command with ExitError. The text is "what: why".
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Ends a command whose standard output failed, since the rest of its work would be lost. FlushOutput() has printed the
// reason.
struct OutputFailed : std::exception {};

// "what: " and the text of errno.
std::string WithReason(const std::string& what);

// Writes the backslash and every byte that is not printable ASCII as \xHH. Different bytes give different texts, and no
// text can control a terminal or break a line.
std::string Escape(std::string_view bytes);
// The inverse of Escape(). Escape() turns the result back into `text` only if `text` came from Escape().
std::string Unescape(std::string_view text);

// "1 entry", "2 entries"
std::string FormatCount(std::int64_t number, const char* singular, const char* plural);

// The bytes as one word for bash and similar shells.
std::string QuoteForShell(const std::string& bytes);

// "0x400 (1024)"
std::string FormatOffset(std::int64_t offset);

// Throws Failure for an argument in brackets: CLI11 parses "[a,b]" as two arguments and "[a]" as "a".
void RefuseBracketed(int argc, char** argv);

// Writes "ctar: text" to standard error.
void PrintError(const std::string& text);

// Flushes standard output. Returns false after printing the reason when any of it could not be written.
bool FlushOutput();
void RequireOutput(); // the same, but throws OutputFailed

} // namespace ctar
