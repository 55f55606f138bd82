#include "data_channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "sockets.h"
#include "text.h"

namespace tls {

namespace {

constexpr std::size_t BufferSize = 65536; // bytes that move at once

// Waits for one descriptor. Returns false when the wait gives up.
bool WaitForOne(const Wait& wait, int descriptor, short events) {
    pollfd entry{descriptor, events, 0};
    return wait({&entry, 1});
}

std::string SystemReason(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// Has the next segments acknowledged at once. Many a server holds the end of its data, or close_notify, back until all
// before it is acknowledged (Nagle), and an acknowledgement may wait for 40 ms.
void AcknowledgeAtOnce(const TlsStream& stream) {
    const int on = 1;
    ::setsockopt(stream.Socket(), SOL_TCP, TCP_QUICKACK, &on, sizeof on);
}

constexpr char GivenUp[] = "the server refused the rest";

// Writes all of the bytes to the client. Returns what failed, "" for nothing.
std::string WriteClient(int client, std::string_view bytes, const Wait& wait) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(client, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EAGAIN) {
            if (!WaitForOne(wait, client, POLLOUT))
                return GivenUp;
        } else if (errno != EINTR)
            return SystemReason("the client's data connection");
    }
    return "";
}

// Reads until the buffer is full or nothing more is there. Returns the last result that moved nothing, Done when the
// buffer is full.
IoResult FillFromServer(TlsStream& stream, std::span<char> buffer, std::size_t& filled) {
    IoResult result{Io::Done};
    for (filled = 0; filled < buffer.size(); filled += result.count) {
        result = stream.Read(buffer.subspan(filled));
        if (result.io != Io::Done)
            return result;
    }
    return {Io::Done};
}

// What cut an upload when the server has said something on its data connection; "" when that is harmless.
std::string ReadUnexpected(TlsStream& stream) {
    std::array<char, 1024> ignored{};
    const IoResult result = stream.Read(ignored);
    switch (result.io) {
    case Io::WantRead:
    case Io::WantWrite:
        return "";
    case Io::Done:
        return "the server sent data during an upload";
    case Io::Closed:
    case Io::Cut:
        return "the server ended the data connection during an upload";
    default:
        return stream.Reason();
    }
}

std::string WriteServer(TlsStream& stream, std::string_view bytes, const Wait& wait) {
    while (!bytes.empty()) {
        const IoResult result = stream.Write(bytes);
        if (result.io == Io::Failed || result.io == Io::Closed || result.io == Io::Cut)
            return result.io == Io::Failed ? stream.Reason() : "the server ended the data connection";
        bytes.remove_prefix(result.count);
        if (result.io == Io::Done)
            continue;
        if (!WaitForOne(wait, stream.Socket(), result.io == Io::WantWrite ? POLLOUT : POLLIN))
            return GivenUp;
    }
    return "";
}

// Sends close_notify. Returns what failed.
std::string CloseServer(TlsStream& stream, const Wait& wait) {
    for (;;) {
        const IoResult result = stream.CloseNotify();
        if (result.io == Io::Done)
            return "";
        if (result.io != Io::WantWrite && result.io != Io::WantRead)
            return result.io == Io::Failed ? stream.Reason() : "the server ended the data connection";
        if (!WaitForOne(wait, stream.Socket(), POLLOUT))
            return GivenUp;
    }
}

} // namespace

void DataChannel::ResetOnClose() {
    if (stream_ != nullptr && !uploaded_)
        stream_->ResetOnClose();
}

void DataChannel::Protect(const TlsContext& context, SSL_SESSION* session, const Wait& wait) {
    stream_ = std::make_unique<TlsStream>(context, std::move(socket_), session);
    AcknowledgeAtOnce(*stream_);
    CompleteHandshake(*stream_, wait);
}

DataEnd DataChannel::Cut(const std::string& reason) {
    ResetOnClose();
    return {.cut = reason, .without_close_notify = false, .bytes = bytes_};
}

DataEnd DataChannel::Download(int client, bool accept_missing_close_notify, const Wait& wait) {
    SetResetOnClose(client, true);
    std::vector<char> buffer(BufferSize);
    for (;;) {
        std::size_t filled = 0;
        const IoResult result = FillFromServer(*stream_, buffer, filled);
        const std::string failure = WriteClient(client, {buffer.data(), filled}, wait);
        if (!failure.empty())
            return Cut(failure);
        bytes_ += filled;
        const bool missing = result.io == Io::Cut;
        if (result.io == Io::Failed)
            return Cut(stream_->Reason());
        if (missing && !accept_missing_close_notify)
            return Cut("the server's data connection ended without close_notify");
        if (result.io == Io::Closed || missing) {
            CloseServer(*stream_, wait); // the data are complete whether or not that gets there
            SetResetOnClose(client, false);
            return {.cut = "", .without_close_notify = missing, .bytes = bytes_};
        }
        if (result.io == Io::Done)
            continue;
        AcknowledgeAtOnce(*stream_);
        // The client's socket is there for its errors only.
        std::array<pollfd, 2> entries{
            {{stream_->Socket(), static_cast<short>(result.io == Io::WantWrite ? POLLOUT : POLLIN), 0},
             {client, 0, 0}}};
        if (!wait(entries))
            return Cut(GivenUp);
        if (entries[1].revents != 0)
            return Cut("the client ended its data connection");
    }
}

DataEnd DataChannel::Upload(int client, const Wait& wait) {
    SetResetOnClose(client, true);
    std::vector<char> buffer(BufferSize);
    for (;;) {
        const ssize_t count = ::recv(client, buffer.data(), buffer.size(), MSG_DONTWAIT);
        std::string failure;
        if (count == 0)
            failure = CloseServer(*stream_, wait);
        else if (count > 0)
            failure = WriteServer(*stream_, {buffer.data(), static_cast<std::size_t>(count)}, wait);
        else if (errno != EAGAIN && errno != EINTR)
            failure = SystemReason("the client's data connection");
        else if (std::array<pollfd, 2> entries{{{stream_->Socket(), POLLIN, 0}, {client, POLLIN, 0}}}; !wait(entries))
            failure = GivenUp;
        else if (entries[0].revents != 0)
            failure = ReadUnexpected(*stream_);
        if (!failure.empty())
            return Cut(failure);
        if (count == 0)
            break;
        bytes_ += static_cast<std::uint64_t>(std::max<ssize_t>(count, 0));
    }
    uploaded_ = true;
    SetResetOnClose(client, false);
    return {.cut = "", .without_close_notify = false, .bytes = bytes_};
}

} // namespace tls
