#include "session.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "sockets.h"
#include "text.h"

namespace tls {

namespace {

constexpr std::size_t MostReplies = 4 * LongestLine; // bytes read ahead of the client

} // namespace

void Session::Log(const std::string& text) const {
    relay_.log(FormatText("[%d] %s", number_, text.c_str()));
}

void Session::LogVerbose(const std::string& text) const {
    if (relay_.verbose)
        Log(text);
}

void Session::Run() {
    try {
        Serve();
    } catch (const SessionEnd& end) {
        End(end);
    } catch (const std::exception& error) {
        End({.refusal = error.what()});
    }
    data_.reset();
    data_client_.Reset();
    const std::lock_guard lock(mutex_);
    client_.Reset();
}

void Session::Interrupt() {
    const std::lock_guard lock(mutex_);
    if (client_.IsOpen())
        ::shutdown(client_.Get(), SHUT_RDWR);
}

void Session::Serve() {
    server_ = OpenServer(relay_.server, relay_.context, AwaitAnything());
    const TlsStream& stream = *server_.stream;
    if (relay_.on_certificate)
        relay_.on_certificate(stream.Certificate());
    LogVerbose("connected to " + relay_.server.host + ": " + stream.Protocol() + ", " + stream.Cipher() + ", " +
               stream.Certificate().subject);
    if (relay_.server.implicit)
        RelayReplies();
    else // the server's own greeting came unprotected: none of it is passed on
        SendClient("220 vondral-tls: " + relay_.server.host + ", " + stream.Protocol() + ", " + stream.Cipher() +
                   "\r\n");
    for (;;)
        ProcessCommand(NextCommand());
}

// Tells the client how it ended and says the end to the server.
void Session::End(const SessionEnd& end) {
    if (data_client_.IsOpen())
        SetResetOnClose(data_client_.Get(), true);
    if (data_ != nullptr) // what a server has of an upload must not look complete
        data_->ResetOnClose();
    if (!end.refusal.empty()) {
        Log(end.refusal);
        const std::string reply = "421 vondral-tls: " + MaskControls(end.refusal) + "\r\n";
        ::send(client_.Get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (!end.reason.empty()) {
        LogVerbose(end.reason);
    }
    SetResetOnClose(client_.Get(), end.reset);
    if (server_.stream != nullptr)
        server_.stream->CloseNotify();
    server_.stream.reset();
}

// Waits for the events of `own`, for a command or for a reply; what arrives on the control connections is read. Throws
// when the client has left.
void Session::Await(std::span<pollfd> own, int milliseconds) {
    const bool has_room = replies_.Size() < MostReplies;
    if (unread_ && has_room && server_.stream != nullptr) // poll() does not see what OpenSSL holds
        return ReadServer();
    std::array<pollfd, 4> set{};
    std::size_t count = 0;
    for (const pollfd& each : own)
        set.at(count++) = {each.fd, each.events, 0};
    const std::size_t client = count;
    set.at(count++) = {client_.Get(), POLLIN, 0};
    const bool polls_server = server_.stream != nullptr && server_end_.io == Io::Done && has_room;
    if (polls_server)
        set.at(count++) = {server_.stream->Socket(), POLLIN, 0};
    const int events = ::poll(set.data(), count, milliseconds);
    if (events < 0 && errno != EINTR)
        throw RelayError(std::string("poll: ") + std::strerror(errno));
    for (std::size_t i = 0; i < own.size(); ++i)
        own[i].revents = events > 0 ? set.at(i).revents : short{0};
    if (events <= 0)
        return;
    if (set.at(client).revents != 0)
        ReadClient();
    if (polls_server && set.at(client + 1).revents != 0)
        ReadServer();
}

Wait Session::AwaitAnything() {
    return [this](std::span<pollfd> own) {
        Await(own, -1);
        return true;
    };
}

void Session::ReadClient() {
    std::array<char, 4096> bytes{};
    const ssize_t count = ::recv(client_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count == 0)
        throw SessionEnd{.reason = "the client has closed the session"};
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        throw SessionEnd{.reason = std::string("the client: ") + std::strerror(errno)};
    commands_.Append({bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))});
    if (commands_.Size() > LongestLine)
        throw SessionEnd{.refusal = "the client sends more than is processed"};
}

void Session::ReadServer() {
    std::array<char, 16384> bytes{};
    IoResult result{Io::Done};
    while (result.io == Io::Done && replies_.Size() < MostReplies) {
        result = server_.stream->Read(bytes);
        if (result.io == Io::Done)
            replies_.Append({bytes.data(), result.count});
    }
    unread_ = result.io == Io::Done;
    if (replies_.IsOverlong())
        throw SessionEnd{.refusal = "a reply line of the server has no end"};
    if (result.io == Io::Closed || result.io == Io::Cut || result.io == Io::Failed)
        server_end_ = result;
}

// Ends the session as the server ended its control connection.
void Session::EndByServer() {
    if (server_end_.io == Io::Failed) {
        Log("the server's control connection: " + server_.stream->Reason());
        throw SessionEnd{.reset = true};
    }
    throw SessionEnd{.reason = server_end_.io == Io::Closed
                                   ? "the server has closed the session"
                                   : "the server's control connection ended without close_notify"};
}

void Session::SendClient(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(client_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            pollfd entry{client_.Get(), POLLOUT, 0};
            Await({&entry, 1}, -1);
        } else if (count < 0 && errno != EINTR) {
            throw SessionEnd{.reason = std::string("the client: ") + std::strerror(errno)};
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

void Session::SendServer(std::string_view bytes) {
    while (!bytes.empty()) {
        if (server_end_.io != Io::Done) // what came first tells more than the error of a write
            EndByServer();
        const IoResult result = server_.stream->Write(bytes);
        bytes.remove_prefix(result.count);
        if (result.io == Io::WantRead || result.io == Io::WantWrite)
            WaitForStream(AwaitAnything(), *server_.stream, result.io);
        else if (result.io != Io::Done)
            server_end_ = result;
    }
}

// Consumes the next reply line that has arrived; nothing when there is none.
std::optional<ReplyTracker::Line> Session::AvailableLine(std::string& text) {
    std::optional<std::string> line = replies_.Next();
    if (!line)
        return std::nullopt;
    text = std::move(*line);
    return tracker_.Track(text);
}

ReplyTracker::Line Session::NextLine(std::string& text) {
    for (;;) {
        if (const std::optional<ReplyTracker::Line> line = AvailableLine(text))
            return *line;
        if (server_end_.io != Io::Done)
            EndByServer();
        Await({}, -1);
    }
}

// Keeps a reply away from the client; returns its last line.
std::string Session::AwaitReply() {
    std::string text;
    for (;;) {
        const ReplyTracker::Line line = NextLine(text);
        if (line.ends_reply && line.kind != '1')
            return text;
    }
}

// The client must not connect to where the server says, so no line may look like the answer to PASV.
void Session::RequireNoPassiveReply(std::string_view line) {
    if (IsPassiveReply(line))
        throw RelayError("a 227 reply that nobody asked for");
}

// Passes on the replies to one command, and what else has arrived with them: in one write, because the client does not
// expect a line end in two.
void Session::RelayReplies() {
    bool complete = false;
    std::string text;
    for (std::string pending; !complete; pending.clear()) {
        ReplyTracker::Line line = NextLine(text);
        std::optional<ReplyTracker::Line> next = line;
        for (; next; next = AvailableLine(text)) {
            RequireNoPassiveReply(text);
            pending += text;
            complete = complete || (next->ends_reply && next->kind != '1');
        }
        SendClient(pending);
    }
}

// Waits for a command, passing on what the server says meanwhile.
std::string Session::NextCommand() {
    for (;;) {
        std::string text;
        std::string pending;
        while (AvailableLine(text)) {
            RequireNoPassiveReply(text);
            pending += text;
        }
        SendClient(pending);
        if (std::optional<std::string> line = commands_.Next())
            return *line;
        if (server_end_.io != Io::Done)
            EndByServer();
        Await({}, -1);
    }
}

void Session::ProcessCommand(const std::string& line) {
    const CommandKind kind = ClassifyCommand(line);
    // It may be anything, even a passphrase behind a blank too many.
    LogVerbose(kind == CommandKind::Malformed ? "a malformed command" : LoggedCommand(line));
    switch (kind) {
    case CommandKind::Malformed:
        return SendClient("500 vondral-tls: not a command that can be passed on.\r\n");
    case CommandKind::Refused:
        return SendClient("502 vondral-tls: " + ToUpper(LoggedCommand(line).substr(0, 4)) +
                          " is not available through the relay.\r\n");
    case CommandKind::Login:
        return Login(line);
    case CommandKind::Passive:
        return Passive();
    case CommandKind::Download:
        return TransferData(line, false);
    case CommandKind::Upload:
        return TransferData(line, true);
    case CommandKind::Plain:
        break;
    }
    SendServer(line);
    RelayReplies();
}

// Servers differ in whether they accept PROT before a login; all accept it after one. The passphrase is protected
// either way.
void Session::Login(const std::string& line) {
    SendServer(line);
    std::string reply;
    std::string text;
    for (bool complete = false; !complete; reply += text) {
        const ReplyTracker::Line read = NextLine(text);
        RequireNoPassiveReply(text);
        complete = read.ends_reply && read.kind != '1';
    }
    if (text.starts_with('2'))
        ProtectData();
    SendClient(reply);
}

void Session::ProtectData() {
    for (const char* const command : {"PBSZ 0", "PROT P"}) {
        SendServer(std::string(command) + "\r\n");
        const std::string reply = AwaitReply();
        if (!reply.starts_with('2'))
            throw RelayError(std::string("the server refuses ") + command + ": " + MaskControls(WithoutLineEnd(reply)));
    }
}

} // namespace tls
