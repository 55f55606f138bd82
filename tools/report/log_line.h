// One line of a run's log, understood on its own: who wrote it, when, and what it tells. What a line means for the run
// is the business of run.h.
//
// A passphrase stands in the log from -v3 on, in the command PASS. It does not get past this parser: what it gives for
// such a line holds no text, so nothing that is built on it can show one.

#pragma once

#include <array>
#include <cstddef>
#include <string_view>

// The figures at the end of a run ("** ..." lines), and places in TotalNames.
enum class Total {
    ListBytes,
    ListCalls,
    ListSeconds,
    Found,
    ParsingErrors,
    Bytes, // a backup's scaled by 1024, a restore's by 1000
    SaveSeconds,
    WaitSeconds,
    TransferSeconds,
    Attempted,
    Failed,
    RunSeconds,
};
constexpr std::size_t TotalCount = 12;

// How JSON records call them.
constexpr std::array<const char*, TotalCount> TotalNames{
    "list_bytes",   "list_calls",   "list_seconds",     "files_found",     "parsing_errors", "bytes",
    "save_seconds", "wait_seconds", "transfer_seconds", "files_attempted", "files_failed",   "run_seconds"};

enum class LineKind {
    Unknown,     // nothing that is understood, such as raw bytes of -v4 and -v5
    Silent,      // understood, and of no consequence
    Reply,       // a line without a prefix: the second line of a message; text: all of it
    Refused,     // the options are no good, and there is no run
    Listing,     // the run looks what there is
    Listed,      // and now begins to save
    Saved,       // text: the object
    NotSaved,    // text: the object
    SavedInPart, // text: the object; detail: how many, or the server's reply
    NotFound,    // text: the path of the include file
    NoData,      // the object whose result follows came without data
    Entry,       // a restore begins an entry of the archive; text: its name
    Restored,    // text: the object
    EntryFailed, // the entry under way
    LeftOut,     // text: the object that an include or exclude file leaves out
    ObjectBytes, // number, of the object just reported on this thread; so are the four that follow
    SaveTime,    // number: seconds
    WaitTime,    // for other workers' retrievals
    TransferTime,
    RestoreTime, // by the server's restore
    Sent,        // a command; detail: what the worker is now doing, text: with which object, "" when that is known
    WorkerDone,
    Complete,    // the backup came to its end
    AllRestored, // so did the restore; number: bytes
    NothingToDo, // no object was attempted
    Total,       // number, of `total`
    Terminated,  // ended early, on request and orderly
    Message,     // a failure message of the program; text: without its head
};

struct LogLine {
    LineKind kind = LineKind::Unknown;
    int time = -1;   // seconds since midnight, -1 without a prefix
    int thread = -1; // as tagged, -1 without a prefix
    Total total{};
    double number = 0;         // bytes, seconds or a count
    std::string_view text;     // a part of the line
    std::string_view detail{}; // a part of the line, or a constant
    bool fatal = false;        // of a message: on the main thread it tells that the run as such failed
};

// Understands one line, given without its line end. The result borrows from it. Any bytes will do.
LogLine ParseLogLine(std::string_view line);
