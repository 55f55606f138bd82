// A loopback stand-in for the FTP server of an IBM i, for tests and for rehearsing schedules and disasters.
//
// A Server listens from construction to destruction and serves each session in its own thread. Its store is an ordinary
// directory tree (Options::root), so the result of a restore can be compared with `diff -r`. Options do not change
// after construction; the functions of Server may be called from any thread.

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

// One thing that goes wrong on purpose, once or at every match. It happens to one reply of a command, or to its data
// connection. Transfer commands have two replies, 0 preliminary and 1 final; all others have only reply 0.
struct Fault {
    enum class Kind {
        Replace,    // sends `text` instead, one or more whole lines without the last CR LF; the command is not run
        Pieces,     // sends the reply in pieces that end at the offsets `cuts`, with pauses of `pause_ms` between them
        Close,      // closes the control connection after `bytes` bytes of the reply (0: before it)
        Reset,      // the same with a reset (RST) instead of an orderly close
        CloseAfter, // closes the control connection after the whole reply
        Silent,     // never sends the reply; waits for the client to leave, or for `pause_ms` when that is set
        Flood,      // instead of the reply, sends `text` again and again until the client leaves, with pauses of
                    // `pause_ms`; an empty `text` is a continuation line of the reply ("250-...")
        DataRefuse, // PASV announces a port that does not listen (matches the command PASV)
        DataClose,  // closes the data connection after `bytes` bytes of data; the final reply is sent as usual
        DataReset,  // the same with a reset
        DataSilent, // sends neither data nor a reply after `bytes` bytes; waits for the client to leave
        DataCutRecord, // closes the data connection within the TLS record that begins after `bytes` bytes
        DataNoNotify,  // ends the data connection without TLS's close_notify
        DataNoResume,  // does not resume the TLS session on the data connection
    };
    Kind kind{};
    std::string command;           // prefix of the command line as received; "" is the greeting
    int nth = 1;                   // which match, counted from 1 over all sessions; 0: every match
    int reply = 0;                 // which reply of the command
    std::size_t bytes = 0;         // see the kinds
    std::string text;              // see Replace, Flood
    std::vector<std::size_t> cuts; // see Pieces, ascending
    int pause_ms = 0;              // see Pieces, Silent, Flood
};

// Without a certificate the server speaks plain FTP, else it demands TLS before USER and for data.
struct TlsOptions {
    std::string certificate = {}; // file with the certificate and its chain; "": no TLS
    std::string key = {};         // file with its key
    std::string client_ca = {};   // file with the authority of clients' certificates, which are demanded; "": none are
    std::string unresumed_name = {}; // certificate and key, NAME.pem and NAME.key, of data connections that are not
                                     // resumed by fault; "": the same
    bool implicit = false;           // TLS from the start, without AUTH
    bool require_resumption = false; // refuse data connections that do not resume a session
    bool only_1_2 = false;           // no TLS 1.3
};

struct Options {
    std::filesystem::path root;        // the store; must be a directory
    std::string address = "127.0.0.1"; // IPv4 address to listen on
    std::uint16_t port = 0;            // 0: any free port
    std::string user = "FRED";         // upper and lower case are the same, as on a real server
    std::string password = "secret";   // must match exactly
    std::string release = "V7R3M0";    // reported by SYST; RST accepts CRTPRNDIR from V5R4M0 on
    bool capitals = false;             // send replies in upper case, as some servers do
    std::set<std::string> locked;      // server paths that can be neither saved nor restored
    std::set<std::string> busy;        // server paths that cannot be saved, but can be restored: objects in use
    std::set<std::string> raw;         // files whose save file is just their bytes, without header and padding, and
                                       // that RST restores the same way: for save files of an exact length
    std::vector<Fault> faults;
    std::uint64_t save_rate = 0;     // bytes of the save file per second that a save takes; 0: no limit
    std::uint64_t transfer_rate = 0; // bytes per second of each data connection; 0: no limit
    bool sample = false;             // call MakeSample(root) after bind and before the first session
    std::string passive_address;     // announced in replies to PASV; "": the one that the client has connected to
    TlsOptions tls;
    bool record = true; // keep what Exchanges() and Transcript() return, about 1 KB per object saved
    // Called with each command line before it is processed, from the thread of its session.
    std::function<void(const std::string& line)> on_command;
};

// One command of a session and what the server did on it.
struct Exchange {
    int session;                      // numbered from 0 in the order of connection
    std::string command;              // as received, but "****" for the password of PASS; "" is the greeting
    std::vector<std::string> replies; // complete, with line ends, even when a fault cut what was sent
    std::size_t moved = 0;            // bytes on its data connection
};

class Server {
public:
    // Starts to listen. Throws std::system_error, which names the failed call.
    explicit Server(Options options);
    // Ends every session and waits for its thread.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t Port() const;
    // The exchanges of all sessions so far, in order of arrival; empty without Options::record.
    std::vector<Exchange> Exchanges() const;
    // The commands of one session, or of all sessions when `session` is -1.
    std::vector<std::string> Transcript(int session = -1) const;
    int SessionCount() const; // sessions accepted so far
    int OpenSessions() const; // of those, not yet ended
    int QuitCount() const;    // of those, ended by QUIT
    int FaultCount() const;   // how often a fault happened
    int UncleanCount() const; // TLS connections that the client ended without close_notify, faults aside

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Fills the empty directory `root` with a small but realistic server: libraries, documents, security data,
// configuration, and home directories with one large file, an empty directory, old and new dates, and names that
// contain blanks, apostrophes and non-ASCII bytes. Throws std::filesystem::filesystem_error.
void MakeSample(const std::filesystem::path& root);

} // namespace rehearsal
