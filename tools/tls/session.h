// One session: a client's control connection, the protected one to the server that belongs to it, and its transfers.
// Each session runs in its own thread; only Interrupt may be called from another one.

#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "control_filter.h"
#include "data_channel.h"

namespace tls {

// What all sessions of a relay share. Any thread may use it.
struct RelayState {
    const ServerSettings server;
    const TlsContext context;
    const bool accept_missing_close_notify;
    const bool verbose;
    const std::function<void(const std::string& line)> log;
    // Called with the certificate of each control connection.
    const std::function<void(const CertificateFacts& certificate)> on_certificate;
    std::atomic<bool> cost_told = false; // of accept_missing_close_notify
};

class Session {
public:
    Session(RelayState& relay, Descriptor client, int number)
        : relay_(relay), number_(number), client_(std::move(client)) {}

    // Returns when either side has ended the session, with both connections closed.
    void Run();
    void Interrupt(); // makes Run return soon; any thread may call it

private:
    // Thrown when the session is over.
    struct SessionEnd {
        bool reset = false;    // the client's connection, because the server's broke
        std::string refusal{}; // told to the client with 421; "" for an ordinary end
        std::string reason{};  // for the log
    };

    // Control connections
    void Serve();
    void End(const SessionEnd& end);
    void Await(std::span<pollfd> own, int milliseconds);
    Wait AwaitAnything();
    void ReadClient();
    void ReadServer();
    std::string NextCommand();
    void ProcessCommand(const std::string& line);
    void SendClient(std::string_view bytes);
    void SendServer(std::string_view bytes);
    std::optional<ReplyTracker::Line> AvailableLine(std::string& text);
    ReplyTracker::Line NextLine(std::string& text);
    static void RequireNoPassiveReply(std::string_view line);
    std::string AwaitReply();
    void RelayReplies();
    [[noreturn]] void EndByServer();
    void Log(const std::string& text) const;
    void LogVerbose(const std::string& text) const;

    // Commands
    void Login(const std::string& line);
    void ProtectData();
    void Passive();
    void TransferData(const std::string& line, bool upload);
    void RefuseTransfer(const std::string& reply);
    DataEnd MoveData(bool upload);
    void CheckResumption();
    bool WaitInTransfer(std::span<pollfd> own);
    void CollectFinalReply();
    void FinishTransfer(const DataEnd& end, bool upload);
    bool ListenForData();
    std::vector<Descriptor> AcceptData();
    SSL_SESSION* SessionToResume() const;

    RelayState& relay_;
    const int number_;

    std::mutex mutex_; // guards the closing of client_ against Interrupt
    Descriptor client_;
    LineBuffer commands_;
    ServerConnection server_;
    LineBuffer replies_;
    ReplyTracker tracker_;
    bool unread_ = true; // the stream may hold more than has been read, at first what came with the handshake
    IoResult server_end_{Io::Done}; // how the server's control connection ended, Done while it has not

    // Data connections
    Descriptor listener_; // where the client connects; the same for the whole session
    std::unique_ptr<DataChannel> data_;
    Descriptor data_client_;
    SessionOwner newest_data_session_;
    bool resumes_ = false; // the server has resumed a data connection

    // Of the transfer under way
    std::string held_;         // the final reply, as far as it has come
    char final_ = 0;           // its first character once it is complete, else 0
    bool final_early_ = false; // complete before the upload was
    std::chrono::steady_clock::time_point refused_;
};

} // namespace tls
