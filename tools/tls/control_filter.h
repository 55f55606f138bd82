// What the relay reads in the lines of a control connection: which commands it refuses or has to know, and where
// replies begin and end. Pure functions of bytes, for any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tls {

constexpr std::size_t LongestLine = 65536; // bytes; a longer line ends the session

// Bytes received, and their complete lines.
class LineBuffer {
public:
    void Append(std::string_view bytes) { bytes_ += bytes; }
    // The next line, including its LF; nothing when it is not complete.
    std::optional<std::string> Next();
    bool HasLine() const { return bytes_.find('\n') != bytes_.npos; }
    // More than LongestLine bytes and no line end.
    bool IsOverlong() const { return bytes_.size() > LongestLine && !HasLine(); }
    bool IsEmpty() const { return bytes_.empty(); }
    std::size_t Size() const { return bytes_.size(); }

private:
    std::string bytes_;
};

enum class CommandKind {
    Plain,    // passed on, like its reply
    Login,    // USER, PASS, ACCT: a positive reply is passed on once data connections are protected
    Passive,  // PASV: the relay answers it
    Download, // has a data connection
    Upload,
    Refused,   // would open a connection past the relay, or take the protection off
    Malformed, // a server might find another command in it
};

// The line without its CR LF, LF or CR.
std::string_view WithoutLineEnd(std::string_view line);

// `line` may end in CR LF or LF.
CommandKind ClassifyCommand(std::string_view line);

// The command as the log shows it: without its line end, without the value of PASS and ACCT, control characters masked.
std::string LoggedCommand(std::string_view line);

// Follows the lines of a server. A reply is one line, or the lines from "nnn-" to the next that begins with "nnn" and
// not with "nnn-". A line that is no reply at all counts as one, and as final, as it does in the client.
class ReplyTracker {
public:
    struct Line {
        bool ends_reply;
        char kind; // first character of the reply: '1' for a preliminary one
    };
    Line Track(std::string_view line);

private:
    std::string code_; // of the reply under way, "" between replies
    char kind_ = 0;
};

// A line that the client could take for the answer to PASV. Only the relay itself may send one.
bool IsPassiveReply(std::string_view line);

// The port in "227 Entering Passive Mode (h1,h2,h3,h4,p1,p2).", whatever the address; nothing without six numbers from
// 0 to 255, or when the port is 0.
std::optional<std::uint16_t> ParsePassivePort(std::string_view line);

// The relay's own answer to PASV. `address` is an IPv4 address in host byte order.
std::string FormatPassiveReply(std::uint32_t address, std::uint16_t port);

} // namespace tls
