// The part of a session that concerns data connections.

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <tuple>

#include <arpa/inet.h>
#include <sys/socket.h>

#include "session.h"
#include "sockets.h"
#include "text.h"

namespace tls {

namespace {

constexpr auto RefusedPatience = std::chrono::seconds(5);  // for the data connection to end after a refusal
constexpr auto ConnectPatience = std::chrono::seconds(10); // for the client's data connection
constexpr int DrainPatience = 2000;                        // milliseconds, for more data of a refused transfer
constexpr std::size_t LongestHeldReply = 300000;           // bytes; the client accepts no more either

} // namespace

// Makes the socket for the client's data connections, at the address that the client's control connection leads to.
bool Session::ListenForData() {
    if (listener_.IsOpen())
        return true;
    sockaddr_in address = LocalAddress(client_);
    address.sin_port = 0;
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.Get(), SOMAXCONN) != 0)
        return false;
    listener_ = std::move(listener);
    return true;
}

// Accepts the client's data connection, which should be there by the time of its transfer command. Anybody on this
// machine can connect to that port: a single connection is the client's, and of several nobody knows which is. Returns
// all that have come, none after ten seconds.
std::vector<Descriptor> Session::AcceptData() {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + ConnectPatience;
    pollfd entry{listener_.Get(), POLLIN, 0};
    for (milliseconds left = ConnectPatience; entry.revents == 0 && left > milliseconds(0);
         left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now()))
        Await({&entry, 1}, static_cast<int>(left.count()));
    std::vector<Descriptor> accepted;
    for (;;) {
        Descriptor next(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!next.IsOpen())
            return accepted;
        accepted.push_back(std::move(next));
    }
}

// The connection to the server is made first: the client learns of a failure as the reply to PASV.
void Session::Passive() {
    data_.reset();
    data_client_.Reset();
    if (!ListenForData())
        return SendClient("425 vondral-tls: no port for a data connection.\r\n");
    while (Descriptor(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)).IsOpen())
        continue; // connections that no transfer used
    SendServer("PASV\r\n");
    const std::string reply = AwaitReply();
    if (!IsPassiveReply(reply))
        return SendClient(reply);
    const std::optional<std::uint16_t> port = ParsePassivePort(reply);
    if (!port)
        return SendClient("425 vondral-tls: the server's reply to PASV names no port.\r\n");
    sockaddr_in address = server_.peer;
    address.sin_port = htons(*port);
    try {
        data_ = std::make_unique<DataChannel>(ConnectTcp(address, relay_.server.keep_alive, AwaitAnything()));
    } catch (const RelayError& error) {
        Log(error.what());
        return SendClient(FormatText("425 vondral-tls: %s.\r\n", error.what()));
    }
    const sockaddr_in local = LocalAddress(listener_);
    SendClient(FormatPassiveReply(ntohl(local.sin_addr.s_addr), ntohs(local.sin_port)));
}

// The newest session of the control connection, or of a data connection once that is too old.
SSL_SESSION* Session::SessionToResume() const {
    SSL_SESSION* const control = server_.stream->Newest();
    const bool use_control = control != nullptr && !IsExpired(control, std::time(nullptr));
    return use_control || newest_data_session_ == nullptr ? control : newest_data_session_.get();
}

// Requires: the handshake of a data connection is complete. Throws RelayError when somebody else than the server of the
// control connection may be at the other end.
void Session::CheckResumption() {
    const TlsStream& stream = data_->Stream();
    if (stream.IsResumed()) {
        resumes_ = true;
        return;
    }
    const SSL_SESSION* const offered = SessionToResume();
    if (resumes_ && offered != nullptr && !IsExpired(offered, std::time(nullptr)))
        throw RelayError("the server did not resume the TLS session, which it did before");
    if (stream.Certificate().pin != server_.stream->Certificate().pin)
        throw RelayError("the data connection has another certificate than the control connection");
}

// Reads what has arrived of the final reply. A refusal starts the time that the data connection may still take.
void Session::CollectFinalReply() {
    std::string text;
    while (const std::optional<ReplyTracker::Line> line = final_ == 0 ? AvailableLine(text) : std::nullopt) {
        RequireNoPassiveReply(text);
        held_ += text;
        if (held_.size() > LongestHeldReply)
            throw RelayError("more than 300000 bytes of replies to one command");
        if (!line->ends_reply || line->kind == '1')
            continue;
        final_ = line->kind;
        refused_ = std::chrono::steady_clock::now();
    }
    if (final_ == 0 && server_end_.io != Io::Done)
        EndByServer();
}

// Waits while data move. Returns false when the server has refused the rest and not ended its data connection.
bool Session::WaitInTransfer(std::span<pollfd> own) {
    CollectFinalReply();
    if (final_ == 0 || final_ == '2') {
        Await(own, -1);
        return true;
    }
    using std::chrono::milliseconds;
    const auto left =
        std::chrono::duration_cast<milliseconds>(refused_ + RefusedPatience - std::chrono::steady_clock::now());
    if (left <= milliseconds(0))
        return false;
    Await(own, static_cast<int>(left.count()));
    return true;
}

DataEnd Session::MoveData(bool upload) {
    const Wait wait = [this](std::span<pollfd> own) { return WaitInTransfer(own); };
    try {
        data_->Protect(relay_.context, SessionToResume(), wait);
        CheckResumption();
    } catch (const RelayError& error) {
        SetResetOnClose(data_client_.Get(), true);
        return {.cut = error.what()};
    }
    DataEnd end = upload ? data_->Upload(data_client_.Get(), wait)
                         : data_->Download(data_client_.Get(), relay_.accept_missing_close_notify, wait);
    CollectFinalReply();
    final_early_ = upload && final_ != 0;
    if (SSL_SESSION* const newest = data_->Stream().Newest(); newest != nullptr && SSL_SESSION_up_ref(newest) == 1)
        newest_data_session_.reset(newest);
    return end;
}

// Closes what the refused transfer would have used. The client may be sending already: closing its connection with
// unread data would reset it, which looks like a broken connection and not like a refusal.
void Session::RefuseTransfer(const std::string& reply) {
    SendClient(reply);
    data_.reset();
    if (!data_client_.IsOpen())
        return;
    SetResetOnClose(data_client_.Get(), false);
    ::shutdown(data_client_.Get(), SHUT_WR);
    std::array<char, 65536> ignored{};
    pollfd entry{data_client_.Get(), POLLIN, 0};
    do
        Await({&entry, 1}, DrainPatience);
    while (entry.revents != 0 && ::recv(entry.fd, ignored.data(), ignored.size(), MSG_DONTWAIT) > 0);
    data_client_.Reset();
}

void Session::TransferData(const std::string& line, bool upload) {
    if (data_ == nullptr)
        return SendClient("425 vondral-tls: PASV first.\r\n");
    std::vector<Descriptor> accepted = AcceptData();
    if (!accepted.empty())
        data_client_ = std::move(accepted.front());
    if (accepted.size() != 1) {
        const char* const trouble =
            accepted.empty() ? "no data connection has come" : "somebody else has connected to the data port";
        Log(trouble);
        return RefuseTransfer(FormatText("425 vondral-tls: %s.\r\n", trouble));
    }
    held_.clear();
    final_ = 0;
    SendServer(line);
    std::string text;
    ReplyTracker::Line read = NextLine(text);
    std::string first = text;
    for (RequireNoPassiveReply(text); !read.ends_reply; first += text) {
        read = NextLine(text);
        RequireNoPassiveReply(text);
    }
    if (read.kind != '1' && read.kind != '2')
        return RefuseTransfer(first);
    if (read.kind == '1')
        SendClient(first);
    else
        std::tie(final_, held_) = std::pair(read.kind, first);
    FinishTransfer(MoveData(upload), upload);
}

// A positive final reply reaches the client only when the data are whole.
void Session::FinishTransfer(const DataEnd& end, bool upload) {
    std::string cut = end.cut;
    if (end.without_close_notify && !relay_.cost_told.exchange(true))
        Log("the server ends its data connections without close_notify, which is accepted: whoever can end a TCP "
            "connection on the way can now shorten a file, and only the server's reply tells");
    if (!cut.empty())
        Log("a transfer was cut: " + cut);
    data_client_.Reset();
    if (!upload || !cut.empty())
        data_.reset();
    for (CollectFinalReply(); final_ == 0; CollectFinalReply())
        Await({}, -1);
    data_.reset();
    if (cut.empty() && final_early_ && final_ == '2')
        Log(cut = "the server called the transfer complete before it was");
    LogVerbose(FormatText("%s %llu bytes%s%s", upload ? "sent" : "received", Printable(end.bytes),
                          cut.empty() ? "" : ", cut: ", cut.c_str()));
    if (cut.empty() || final_ != '2')
        return SendClient(held_);
    SendClient("426 vondral-tls: " + MaskControls(cut) + ".\r\n");
}

} // namespace tls
