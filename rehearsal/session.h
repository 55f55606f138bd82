// One FTP session: the control connection with its commands, and the data connection of a transfer. Each session runs
// in its own thread; only Interrupt may be called from another one.

#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rehearsal.h"
#include "save_restore.h"
#include "store.h"
#include "wire.h"

namespace rehearsal {

// Waits for `events` (as for poll) on the socket, or for its end. Returns false when the time is over; -1 waits
// forever.
bool WaitFor(int socket, short events, int milliseconds);

// Makes the next close of the socket send a reset.
void CloseByReset(int socket);

// What all sessions of a server share. Any thread may call the functions.
class SharedState {
public:
    explicit SharedState(Options given)
        : options(std::move(given)), store(options.root),
          tls(options.tls.certificate.empty() ? nullptr : MakeTlsContext(options.tls)), counts_(options.faults.size()) {
    }

    const Options options;
    const Store store;
    const TlsContextOwner tls;  // null: plain FTP
    std::atomic<int> quits = 0; // sessions ended by QUIT
    std::atomic<int> open = 0;  // sessions not yet ended
    std::atomic<int> met_faults = 0;
    std::atomic<int> unclean = 0; // TLS connections ended by the client without close_notify

    // Starts the record of an exchange. Returns its index, which the next two functions need.
    std::size_t RecordCommand(int session, const std::string& line);
    void RecordReply(std::size_t exchange, const std::string& reply);
    void RecordTransferred(std::size_t exchange, std::size_t bytes);
    std::vector<Exchange> Exchanges() const;
    // Counts the command line ("" is the greeting) for all faults and returns those that happen to it.
    std::vector<const Fault*> FaultsOf(const std::string& line);

private:
    mutable std::mutex mutex_;
    std::vector<Exchange> exchanges_; // guarded by mutex_
    std::vector<int> counts_;         // matches so far, by fault; guarded by mutex_
};

class Session {
public:
    Session(SharedState& shared, Descriptor control, int number)
        : shared_(shared), number_(number), control_{std::move(control), nullptr} {}

    void Run();       // returns after QUIT, a fault that ends the session, Interrupt, or when the client leaves
    void Interrupt(); // makes Run return soon; any thread may call it

private:
    struct SessionEnded {}; // thrown when the control connection is closed or must be closed now
    enum class TransferResult { Complete, Cut, Broken };
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
    void ProcessCommand(const std::string& line);
    std::string ReadLine(int wait_seconds); // -1 waits forever; throws SessionEnded
    void Reply(std::string text);           // all replies are sent here, with the faults of the command
    void SendPieces(const std::string& bytes, const Fault& fault);
    [[noreturn]] void SendFlood(const std::string& reply, const Fault& fault);
    void SendControl(std::string_view bytes);
    void ProtectControl();
    [[noreturn]] void AwaitClientLeaving();
    const Fault* Active(Fault::Kind kind) const; // of this command, for any of its replies
    const Fault* Active(Fault::Kind kind, int reply) const;

    // Data connection
    bool OpenData(int wait_milliseconds);
    bool BeginTransfer(const std::string& reply);
    void CloseData();
    void RefuseTransfer(const std::string& reply);
    std::size_t AllowedBytes(std::size_t wanted) const; // for the next call; 0: a fault happens now
    void CountTransferred(std::size_t bytes);
    void WaitAtRate(std::uint64_t bytes, std::uint64_t rate, std::chrono::steady_clock::time_point start);
    TransferResult CutData();
    TransferResult SendData(std::string_view bytes);
    TransferResult SendFile(int file);
    TransferResult SendFileProtected(int file);
    TransferResult ReceiveFile(int file);
    void FinishTransfer(TransferResult result, const char* completed);
    void CloseTls(Wire& wire);
    void ReplaceSocket(Descriptor& slot, Descriptor value);

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
    void Auth(const std::string& parameter);
    void Pbsz(const std::string& parameter);
    void Prot(const std::string& parameter);
    void Rcmd(const std::string& parameter);
    void Quit(const std::string& parameter);
    std::string ListRow(const std::string& directory, const Child& child) const;
    Descriptor OpenToSend(const std::string& parameter, std::string& refusal) const;
    Descriptor OpenToReceive(const std::string& parameter, std::string& refusal) const;
    bool NeedsImage(const std::string& parameter) const;

    SharedState& shared_;
    const int number_;
    const TemporaryLibrary* library_ = nullptr; // nullptr before and after Run
    std::string received_;                      // not yet processed

    // Of the current command
    std::vector<const Fault*> faults_;
    std::string verb_;
    std::size_t exchange_ = 0;    // index of its record
    int replies_ = 0;             // sent so far
    std::size_t transferred_ = 0; // bytes on the data connection
    std::chrono::steady_clock::time_point transfer_start_;

    std::string user_;
    bool logged_on_ = false;
    bool image_ = false;         // TYPE I
    bool protects_data_ = false; // PROT P
    std::string directory_ = "/";
    int idle_seconds_ = 300;

    // Only the session's thread replaces the sockets. Other threads only shut them down.
    std::mutex mutex_;
    bool ending_ = false; // guarded by mutex_, as are the changes of the sockets below
    Wire control_;
    Descriptor passive_; // listens for the data connection that PASV announced
    Wire data_;
};

} // namespace rehearsal
