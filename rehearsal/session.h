// One FTP session: the control connection with its commands, and the data connection of a transfer. Each runs
// in a thread of its own; only Interrupt may be called from another.

#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rehearsal.h"
#include "save_restore.h"
#include "store.h"

namespace rehearsal {

// Waits until `events` (of poll) happen to the socket, or it ends; -1 waits for ever. False after the time.
bool WaitFor(int socket, short events, int milliseconds);

// Makes the coming close of the socket a reset.
void CloseByReset(int socket);

// What all sessions of a server share. Any thread may call the functions.
class Shared {
public:
    explicit Shared(Options given) : options(std::move(given)), store(options.root), counts_(options.faults.size()) {}

    const Options options;
    const Store store;
    std::atomic<int> quits = 0; // sessions ended by QUIT
    std::atomic<int> open = 0;  // sessions not yet ended
    std::atomic<int> met_faults = 0;

    // Begins the record of an exchange; gives its index, by which replies and data are added.
    std::size_t Record(int session, const std::string& line);
    void RecordReply(std::size_t exchange, const std::string& reply);
    void RecordMoved(std::size_t exchange, std::size_t bytes);
    std::vector<Exchange> Exchanges() const;
    // The faults that befall this command line ("": the greeting). Counts the match.
    std::vector<const Fault*> FaultsOf(const std::string& line);

private:
    mutable std::mutex guard_;
    std::vector<Exchange> exchanges_; // under guard_
    std::vector<int> counts_;         // matches so far, by fault; under guard_
};

class Session {
public:
    Session(Shared& shared, Descriptor control, int number)
        : shared_(shared), number_(number), control_(std::move(control)) {}

    void Run();       // until the client leaves, QUIT, a fault or Interrupt ends it
    void Interrupt(); // makes Run end soon; any thread

private:
    struct Gone {}; // the control connection is no more, or shall be no more
    enum class Moved { All, Cut, Broken };
    using Handler = void (Session::*)(const std::string& parameter);
    struct Verb {
        const char* name;
        Handler run;
        bool transfers = false; // has a preliminary reply and a data connection
        bool before_logon = false;
    };
    static const std::vector<Verb>& Verbs();

    // Control connection
    void Serve();
    void Perform(const std::string& line);
    std::string ReadLine(int wait_seconds); // -1: for ever; throws Gone
    void Reply(std::string text);           // the one place where replies leave, with the faults of the command
    void SendPieces(const std::string& bytes, const Fault& fault);
    void SendControl(std::string_view bytes);
    [[noreturn]] void AwaitClientLeaving();
    const Fault* Active(Fault::Kind kind) const; // of this command, whatever reply it is for
    const Fault* Active(Fault::Kind kind, int reply) const;

    // Data connection
    bool OpenData(int wait_milliseconds);
    void CloseData();
    void RefuseTransfer(const std::string& reply);
    std::size_t Allowance(std::size_t wanted) const; // bytes up to where a fault strikes; 0: it strikes now
    Moved CutData();
    Moved SendData(std::string_view bytes);
    Moved SendFile(int file);
    Moved ReceiveFile(int file);
    void FinishTransfer(Moved moved, const char* completed);
    void Install(Descriptor& slot, Descriptor value);

    // Commands
    void User(const std::string& parameter);
    void Pass(const std::string& parameter);
    void Cwd(const std::string& parameter);
    void Syst(const std::string& parameter);
    void Time(const std::string& parameter);
    void Setting(const std::string& parameter);
    void Pasv(const std::string& parameter);
    void List(const std::string& parameter);
    void Retr(const std::string& parameter);
    void Stor(const std::string& parameter);
    void Mkd(const std::string& parameter);
    void Rcmd(const std::string& parameter);
    void Quit(const std::string& parameter);
    std::string ListRow(const std::string& directory, const Child& child) const;
    Descriptor OpenToSend(const std::string& parameter, std::string& refusal) const;
    Descriptor OpenToReceive(const std::string& parameter, std::string& refusal) const;
    bool NeedsImage(const std::string& parameter) const;

    Shared& shared_;
    const int number_;
    const TemporaryLibrary* library_ = nullptr; // while Run runs
    std::string held_;                          // received and not yet consumed
    std::vector<const Fault*> faults_;          // of the current command
    std::string verb_;                          // likewise
    std::size_t exchange_ = 0;                  // its record
    int replies_ = 0;                           // of the current command, so far
    std::size_t moved_ = 0;                     // bytes of data, likewise

    std::string user_;
    bool logged_on_ = false;
    bool image_ = false;
    std::string directory_ = "/";
    int idle_seconds_ = 300;

    // The session's thread alone changes these, under guard_; others only shut them down, under guard_ as
    // well.
    std::mutex guard_;
    bool ending_ = false; // under guard_
    Descriptor control_;
    Descriptor passive_; // listens for the data connection that PASV announced
    Descriptor data_;
};

} // namespace rehearsal
