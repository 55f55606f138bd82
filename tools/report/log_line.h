// Parses one line of a run's log on its own: which thread wrote it, when, and what it says. run.h decides what it means
// for the run.
//
// From -v3 on the log contains the passphrase, in the command PASS. The parser cuts a line after that word before it
// looks at it, so nothing built on the parser can keep or show the passphrase.

#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace report {

// The numbers in the lines "** ..." at the end of a run; also indices into TotalNames.
enum class Total {
    ListBytes,
    ListCalls,
    ListSeconds,
    Found,
    ParsingErrors,
    Bytes, // a backup scales them by 1024, a restore by 1000
    SaveSeconds,
    WaitSeconds,
    TransferSeconds,
    Attempted,
    Failed,
    RunSeconds,
};
constexpr std::size_t TotalCount = 12;

// Their names in JSON. What the log calls "Objects" here are files: each file of a saved directory counts.
constexpr std::array<const char*, TotalCount> TotalNames{
    "list_bytes",   "list_calls",   "list_seconds",     "files_found",     "parsing_errors", "bytes",
    "save_seconds", "wait_seconds", "transfer_seconds", "files_attempted", "files_failed",   "run_seconds"};

enum class LineKind {
    Unknown,        // not understood, such as raw bytes at -v4 and -v5
    Ignored,        // understood, but of no consequence
    Reply,          // a line without a prefix: the second line of a message; text: all of it
    UsageError,     // the options are bad, so there is no run
    ListingStarted, // the backup lists the server's files
    SavingStarted,  // it has them all and starts the workers
    Saved,          // text: the name
    NotSaved,       // text: the name
    SavedInPart,    // text: the name; detail: how many are missing, or the server's reply
    NotFound,       // text: the path in the include file
    NoData,         // the save whose result follows has no data
    Entry,          // a restore starts an entry; text: its name
    Restored,       // text: the entry
    EntryFailed,    // the current entry
    LeftOut,        // text: a name excluded by an include or exclude file
    Size,           // number: bytes of the save just reported on this thread; the next four belong to it too
    SaveTime,       // number: seconds
    WaitTime,       // for other workers' transfers
    TransferTime,   // with the server
    RestoreTime,    // of the server
    Command,        // detail: what the worker is now doing; text: its save or entry, "" when unchanged
    WorkerDone,
    BackupComplete,
    RestoreComplete, // number: bytes
    NothingAttempted,
    Total,      // number, of `total`
    Terminated, // ended early on request, in order
    Message,    // a failure message of the program; text: without its head
};

struct LogLine {
    std::string_view whole; // the line, without the argument of PASS
    LineKind kind = LineKind::Unknown;
    int time = -1;   // seconds since midnight, -1 without a prefix
    int thread = -1; // number in the prefix, -1 without one
    Total total{};
    double number = 0;         // bytes, seconds or a count
    std::string_view text;     // part of the line
    std::string_view detail{}; // part of the line, or a constant
    bool fatal = false;        // a message that, from the main thread, means that the run itself failed
};

// Parses a line without its line end; it may contain any bytes. The result borrows from it.
LogLine ParseLogLine(std::string_view line);

} // namespace report
