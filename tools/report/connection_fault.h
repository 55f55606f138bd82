// Connection faults, in words: what several lines of the log say about one lost connection.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace report {

enum class FaultKind {
    Lost,
    Silent,      // the server sent or accepted nothing for too long
    Unreachable, // no control connection
    DataRefused, // no data connection
};

struct ConnectionFault {
    static constexpr std::size_t MostLines = 50;
    static constexpr std::size_t LongestLine = 400; // bytes

    FaultKind kind{};
    int thread = 0;
    double time = 0;                // seconds after the first line of the log
    std::string during;             // the save or entry that was under way, "" when not known
    bool recovered = false;         // the client reconnected, and what was under way succeeded
    std::uint64_t attempts = 0;     // to reconnect
    std::vector<std::string> lines; // of the log, the first MostLines, cut to LongestLine
};

// The kind of fault that a message is about; nothing for other messages.
std::optional<FaultKind> FaultKindOf(std::string_view message);

// Adds a message, as a line of the log, to the fault that it is about.
void AddToFault(ConnectionFault& fault, FaultKind kind, std::string_view message, std::string_view line);

// "connection lost at 22:59:25; run again". `first` is the time of the log's first line in seconds since midnight.
std::string FaultReason(const ConnectionFault& fault, int first);

// "Connection lost at 22:59:25 during /QSYS.LIB/A.LIB; run again", with the bytes of the name as they are in the log.
std::string FaultText(const ConnectionFault& fault, int first);

} // namespace report
