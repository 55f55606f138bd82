// FTP session: login, recovery after a broken connection, remote listing, and the commands that have the
// server save objects into save files, and fetch those into the archive.
//
// A session belongs to one thread. All commands go through SendCommand (socket.h).
//
// Operations of several commands are protected: they mark their start as the session's checkpoint. When the
// transport finds the connection broken it leaves, by an exception, for the operation that marked the
// checkpoint; the session connects and logs in again, and the operation starts over, or gives up with -1 when
// it had passed the point where its effects can be repeated.

#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "archive_writer.h"
#include "commands.h"
#include "socket.h"
#include "tree.h"

constexpr RecordTag SessionTag{'f', 't', 'p', 's'};

// Flags of a checkpoint.
constexpr unsigned CHECKPOINT_ARMED = 1; // the operation is under way and may be returned to
constexpr unsigned CHECKPOINT_RETRY = 2; // it may be run again from its start

// Where control returns when the connection fails. Copied aside and put back whole, so that operations nest.
struct Checkpoint {
    const void* operation = nullptr; // tells the protected operation; compared, never followed
    unsigned flags = 0;
};

struct FtpSession {
    RecordTag tag{};                     // set last, when the session is connected
    std::optional<std::string> user;     // of the last successful login
    std::optional<std::string> password; //
    // Transfer parameters as last set on the server, 0 when unknown: the character of MODE, STRU, TYPE, SITE
    // NAMEFMT and SITE LISTFMT.
    char mode = 0;
    char structure = 0;
    char type = 0;
    char name_format = 0;
    char list_format = 0;
    std::unique_ptr<FtpConnection> control;
    Checkpoint checkpoint;
};

// The release that SYST reported at the last login: 1 for "V5R3M0", 2 for "V5R4M0", 0 for any other. Every
// session talks to the same server and so writes the same value.
extern std::atomic<int> ServerRelease;

// Connects to the host's port for `service`. Gives nothing after a failure, which is reported.
std::unique_ptr<FtpSession> NewSession(const char* host, const char* service);

// Logs in and checks the server; without user or password the stored ones are used. Gives 0, or -1 when the
// server refuses USER, PASS or CWD; trouble with SYST or TIME is only reported.
int Login(FtpSession* session, const char* user, const char* password);

// Sends QUIT, closes and frees. Gives 0 when the socket closed cleanly, else -1.
int Quit(std::unique_ptr<FtpSession> session);

// Connects and logs in again after a failure, with nothing armed meanwhile, and forgets the transfer
// parameters.
int RecoverCheckpoint(FtpSession* session);

// Sends MKD for every parent directory of an absolute path, whatever the server says to it. Gives 0, or 1
// without sending anything for another path.
int MakeParentDirectories(FtpSession* session, const std::string& path);

// Lists one directory to the callback, setting the transfer parameters first as far as needed. Gives 0, or -1.
// `directory` is the node being listed: one whose listing the server refuses with CPF3CAA becomes one file of its
// parent (see ListFailed). Without a node every refusal is final. Once data may have reached the callback a broken
// connection is recovered, but the listing is not repeated: -1.
int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context, ObjectNode* directory);

// Judges a refused LIST: 0 when the reply holds "CPF3CAA" and the directory was kept as one object, -1 after
// reporting the reply, -22 when reply or directory is missing.
int ListFailed(const char* reply, ObjectNode* directory);

// Seconds spent on one object.
struct TransferStats {
    double save = 0;     // by the save command
    double wait = 0;     // for other workers' retrievals
    double transfer = 0; // by the retrieval
};

// Has the server save the object into QTEMP/SAV<number> and fetches that into the archive through the
// callback, whose argument is `writer`. Gives 0 when the object is in the archive, a save that the server
// calls partial included, else -1. SAV takes a trailing "/" off the object's name. `stats` may be null.
int SaveObject(const SaveMember& member, FtpSession* session, ObjectFile& object, std::uint32_t number,
               TransferStats* stats, DataCallback callback, ArchiveWriter& writer);

// Holds the archive for one retrieval. Leaving the scope releases it, also when a broken connection takes
// control to a checkpoint, so a broken transfer never keeps the other workers from the archive.
class ArchiveLockGuard {
public:
    ArchiveLockGuard();

private:
    std::lock_guard<std::mutex> lock_;
};

// Thrown by a retrieval that has closed its entry after a termination request: ends the worker.
struct WorkerEnd {};

// Appends one save file of the server to the archive as the object's entry. `outer` is the checkpoint to put
// back once the transfer is over; `started` receives the time at which the archive was this thread's. Gives 0
// or -1; after -1 whatever arrived has been closed as an entry, or cut off. Throws WorkerEnd instead of
// returning when termination was requested.
int RetrieveToArchive(FtpSession* session, const Checkpoint& outer, const ObjectFile& object,
                      const std::string& save_file, double& started, DataCallback callback, ArchiveWriter& writer);

// Seconds spent on one entry of a restore.
struct RestoreTimes {
    double restore = 0;  // from the end of the upload to the end of the last restore command
    double transfer = 0; // by the upload
};

// What is restored of one entry.
struct RestoreRequest {
    std::string name;   // the entry's path
    StringList objects; // for libraries (first pair) and paths (all): what to restore, and where to
};

// Uploads the entry's save file from the callback and has the server restore from it. Gives 0, or -1, for
// RSTDLO SendCommand's result; for several paths the last one's result. `times` may be null. A connection
// that breaks once the upload has begun fails the entry: its bytes cannot be read again.
int RestoreObject(const RestoreMember& member, FtpSession* session, RestoreRequest& request, RestoreTimes* times,
                  DataCallback callback, void* argument);

// Has the server restore the private authorities of the restored user profiles. Gives 0 or -1.
int RestoreAuthority(FtpSession* session);
