// A loopback stand-in for the FTP server of an IBM i, for rehearsing schedules and disasters and for the
// tests.
//
// A Server listens from construction to destruction and serves each session in a thread of its own. Its store
// is an ordinary directory tree (Options::root), so that what a restore did can be compared with `diff -r`.
// Options are read-only once the server stands; the functions of Server may be called from any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace rehearsal {

// One thing that goes wrong on purpose, once or at every match. It happens to one reply of a command (a
// transfer command has two: 0 is the preliminary one, 1 the final one; all others have only 0) or to its data
// connection.
struct Fault {
    enum class Kind {
        Replace,    // `text` (one or more whole lines without the last CR LF) is sent instead, the command not
                    // run
        Pieces,     // the reply goes out in pieces that end at the offsets `cuts`, `pause_ms` between them
        Close,      // the control connection is closed after `bytes` bytes of the reply (0: before it)
        Reset,      // the same with a reset (RST) instead of an orderly close
        CloseAfter, // the control connection is closed after the whole reply
        Silent,     // the reply never comes; the connection stays open until the client leaves, or for
                    // `pause_ms` when that is set
        DataRefuse, // nothing listens on the port that PASV announced (matches the command PASV)
        DataClose,  // the data connection is closed after `bytes` bytes of data, the final reply is sent as
                    // usual
        DataReset,  // the same with a reset
        DataSilent, // after `bytes` bytes neither data nor a reply comes until the client leaves
    };
    Kind kind{};
    std::string command;           // a prefix of the command line as received; "" is the greeting
    int nth = 1;                   // which match in the server's life, counted from 1; 0 is every one
    int reply = 0;                 // which reply of the command
    std::size_t bytes = 0;         // see the kinds
    std::string text;              // see Replace
    std::vector<std::size_t> cuts; // see Pieces, ascending
    int pause_ms = 0;              // see Pieces, Silent
};

struct Options {
    std::filesystem::path root;        // the store; must be a directory
    std::string address = "127.0.0.1"; // IPv4 address to listen on
    std::uint16_t port = 0;            // 0: any free port
    std::string user = "FRED";         // compared without regard to case, as the real server does
    std::string password = "secret";   // compared exactly
    std::string release = "V7R3M0";    // as SYST reports it; decides whether RST knows CRTPRNDIR (V5R4M0 and later)
    bool capitals = false;             // reply texts in upper case, as some servers send them
    std::set<std::string> locked;      // server paths that neither a save nor a restore can get at
    std::set<std::string> raw;         // files whose save file is just their bytes, neither framed nor padded, and
                                       // that RST gets back the same way: for save files of an exact length
    std::vector<Fault> faults;
    // Told each command line as it is received, before anything is done; from the threads of the sessions.
    std::function<void(const std::string& line)> on_command;
};

// One command of a session and what the server did on it.
struct Exchange {
    int session;                      // numbered from 0 in order of their connecting
    std::string command;              // as received, the password of PASS replaced by "****"; "" is the greeting
    std::vector<std::string> replies; // each whole, with its line ends, whatever a fault made of it
    std::size_t moved = 0;            // bytes of its data connection
};

class Server {
public:
    // Listens at once. Throws std::system_error naming the call when it cannot.
    explicit Server(Options options);
    // Ends every session and waits for its thread.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t Port() const;
    // Everything so far, over all sessions, in order of arrival.
    std::vector<Exchange> Exchanges() const;
    // The commands alone; `session` -1 gives those of all.
    std::vector<std::string> Transcript(int session = -1) const;
    int SessionCount() const; // sessions accepted so far
    int OpenSessions() const; // of those, not yet ended
    int QuitCount() const;    // of those, ended by QUIT
    int FaultCount() const;   // how often a fault has met its command

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Fills the empty directory `root` with a small believable server: libraries, home directories with blanks,
// apostrophes and non-ASCII bytes in names, an empty directory, one large file, old and new dates, documents,
// security data and configuration. Throws std::filesystem::filesystem_error on failure.
void MakeSample(const std::filesystem::path& root);

} // namespace rehearsal
