// FTP session: login, recovery after a broken connection, remote listing, and the operations that have the server save
// objects into save files, fetch those into the archive, and restore from an uploaded save file.
//
// A session belongs to one thread. All commands go through SendCommand (socket.h).
//
// Operations of several commands are protected: they mark their start as the session's checkpoint. When the transport
// finds the connection broken, an exception takes control to the operation that marked the checkpoint; the session
// connects and logs in again, and the operation starts over, or returns -1 when it had passed the point after which its
// effects cannot be repeated.

#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "archive_writer.h"
#include "commands.h"
#include "run_report.h"
#include "socket.h"
#include "tree.h"

constexpr RecordTag SessionTag{'f', 't', 'p', 's'};

// Flags of a checkpoint.
constexpr unsigned CHECKPOINT_ARMED = 1; // the operation is under way and may be returned to
constexpr unsigned CHECKPOINT_RETRY = 2; // it may be run again from its start

// Where control returns when the connection fails. Copied aside and put back whole, so that operations nest.
struct Checkpoint {
    const void* operation = nullptr; // identifies the protected operation; compared, never followed
    unsigned flags = 0;
};

struct FtpSession {
    RecordTag tag{};                 // set last, when the session is connected
    std::optional<std::string> user; // of the last successful login, as the password
    std::optional<std::string> password;
    Release release = Release::Other; // as SYST reported it at the last login that told it
    // Transfer parameters as last set on the server, 0 when unknown: the character of MODE, STRU, TYPE, SITE NAMEFMT
    // and SITE LISTFMT.
    char mode = 0;
    char structure = 0;
    char type = 0;
    char name_format = 0;
    char list_format = 0;
    std::unique_ptr<FtpConnection> control;
    Checkpoint checkpoint;
};

// Connects to the host's port for `service`. Returns nothing after a failure, which is logged.
std::unique_ptr<FtpSession> NewSession(const char* host, const char* service, const TransportOptions& options = {});

// Logs in and checks the server; without user or password the stored ones are used. Returns 0, or -1 after
// logging the reason; trouble with SYST or TIME is only logged.
int Login(FtpSession* session, const char* user, const char* password);

// Sends QUIT, closes and frees. Returns 0 when the socket closed cleanly, else -1.
int Quit(std::unique_ptr<FtpSession> session);

// Sends MKD for every parent directory of an absolute path and ignores the replies. Returns 0, or 1 for a relative
// path, for which nothing is sent.
int MakeParentDirectories(FtpSession* session, const std::string& path);

// Lists one directory to the callback, after setting what transfer parameters are not set yet. Returns 0, or -1.
// `directory` is the node being listed: one whose listing the server refuses with CPF3CAA becomes one file of its
// parent (see ListFailed). Without a node every refusal is final. Once data may have reached the callback a broken
// connection is recovered, but the listing is not repeated: -1.
int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context, ObjectNode* directory);

// Judges a refused LIST. Returns 0 when the reply contains "CPF3CAA" and the directory was kept as one object, -1 after
// logging the reply, -22 when reply or directory is missing.
int ListFailed(const char* reply, ObjectNode* directory);

// Where a retrieval puts its data. The backup module hands this in; what concerns the archive is logged in its name.
struct EntryTarget {
    ArchiveWriter& writer;
    DataCallback append; // receives the data; its argument is the writer
    CtarBlock (*build_header)(const ObjectFile& object, std::uint64_t size);
    void (*report)(const ArchiveFailure& failure);
};

// What a save does besides saving.
struct SaveRequest {
    ObjectFile& object;             // SAV removes a trailing "/" from its name
    std::uint32_t number;           // of the save file, QTEMP/SAV<number>
    const SaveOptions& options;     // of the save command
    std::FILE* not_saved = nullptr; // receives a line for a partial save
};

// Has the server save the object into a save file and appends that to the archive. Returns 0 when the object is in the
// archive, a save that the server calls partial included, else -1. `times` is set once the retrieval has returned.
// Throws WorkerEnd when termination was requested by the time the entry is closed.
int SaveObject(const SaveMember& member, FtpSession* session, const SaveRequest& request, SaveTimes& times,
               const EntryTarget& target);

// Ends a worker after a termination request: thrown when no entry is open.
struct WorkerEnd {};

// What to restore of one entry.
struct RestoreRequest {
    std::string name;             // the entry's path
    StringList objects;           // for libraries (first pair) and paths (all): what to restore, and where to
    std::FILE* exclude = nullptr; // path file with what to omit below them
};

// Uploads the entry's save file and has the server restore from it. Returns 0, or -1; for RSTDLO the result of
// SendCommand; for several paths the result of the last one. A connection that breaks once the upload has begun fails
// the entry: its bytes cannot be read again. Requires: for a library, `objects` is not empty.
int RestoreObject(const RestoreMember& member, FtpSession* session, RestoreRequest& request, RestoreTimes& times,
                  const Transfer& upload);

// Has the server restore the private authorities of the restored user profiles. Returns 0 or -1.
int RestoreAuthority(FtpSession* session);
