#include "server_connection.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "control_filter.h"
#include "text.h"

namespace tls {

void WaitForSocket(const Wait& wait, int socket, short events) {
    pollfd entry{socket, events, 0};
    if (!wait({&entry, 1}))
        throw RelayError("the server does not answer");
}

void WaitForStream(const Wait& wait, const TlsStream& stream, Io io) {
    WaitForSocket(wait, stream.Socket(), io == Io::WantWrite ? POLLOUT : POLLIN);
}

namespace {

std::string Place(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return FormatText("%s:%d", text.data(), ntohs(address.sin_port));
}

void SetOption(const Descriptor& socket, int level, int option, int value) {
    ::setsockopt(socket.Get(), level, option, &value, sizeof value);
}

// A server that is silent but alive answers these probes; after five without an answer the connection is broken.
void KeepAlive(const Descriptor& socket, int seconds) {
    constexpr int probes = 5;
    SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(socket, SOL_TCP, TCP_KEEPIDLE, seconds);
    SetOption(socket, SOL_TCP, TCP_KEEPINTVL, (seconds + probes - 1) / probes);
    SetOption(socket, SOL_TCP, TCP_KEEPCNT, probes);
    SetOption(socket, SOL_TCP, TCP_NODELAY, 1);
}

} // namespace

Descriptor ConnectTcp(const sockaddr_in& address, int keep_alive, const Wait& wait) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    KeepAlive(socket, keep_alive);
    int error = 0;
    if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        error = errno;
    if (error == EINPROGRESS) {
        WaitForSocket(wait, socket.Get(), POLLOUT);
        socklen_t length = sizeof error;
        ::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
    }
    if (error != 0)
        throw RelayError("connect to " + Place(address) + ": " + std::strerror(error));
    return socket;
}

void CompleteHandshake(TlsStream& stream, const Wait& wait) {
    IoResult result = stream.Handshake();
    for (; result.io == Io::WantRead || result.io == Io::WantWrite; result = stream.Handshake())
        WaitForStream(wait, stream, result.io);
    if (result.io != Io::Done)
        throw RelayError(stream.Reason());
}

namespace {

// IPv4 only, as the client.
sockaddr_in LookUp(const ServerSettings& settings) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(settings.host.c_str(), nullptr, &hints, &found);
    if (error != 0 || found == nullptr)
        throw RelayError(settings.host + ": " + ::gai_strerror(error));
    sockaddr_in address = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    ::freeaddrinfo(found);
    address.sin_port = htons(settings.port);
    return address;
}

// The connection before its handshake: everything on it may be forged.
struct PlainControl {
    const Descriptor& socket;
    const Wait& wait;
    LineBuffer received;
};

void ReadPlain(PlainControl& control) {
    std::array<char, 4096> bytes{};
    WaitForSocket(control.wait, control.socket.Get(), POLLIN);
    const ssize_t count = ::recv(control.socket.Get(), bytes.data(), bytes.size(), 0);
    if (count <= 0)
        throw RelayError(std::string("the server ended the connection before TLS") +
                         (count < 0 ? std::string(": ") + std::strerror(errno) : ""));
    control.received.Append({bytes.data(), static_cast<std::size_t>(count)});
    if (control.received.IsOverlong())
        throw RelayError("a line of the server has no end");
}

// The last line of the next reply; `what` names the reply. Bytes behind it were sent unasked.
std::string AwaitPlainReply(PlainControl& control, const std::string& what) {
    constexpr int longest = 1000; // lines
    ReplyTracker tracker;
    for (int lines = 0; lines < longest;) {
        std::optional<std::string> line = control.received.Next();
        if (!line) {
            ReadPlain(control);
            continue;
        }
        ++lines;
        const ReplyTracker::Line tracked = tracker.Track(*line);
        if (!tracked.ends_reply || tracked.kind == '1')
            continue;
        if (!control.received.IsEmpty())
            throw RelayError("plain text after " + what + ": somebody may have put it there");
        if (tracked.kind != '2')
            throw RelayError(what +
                             " is a refusal: " + MaskControls(line->substr(0, line->find_last_not_of("\r\n") + 1)));
        return *line;
    }
    throw RelayError(what + " has no end");
}

void SendPlain(PlainControl& control, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(control.socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN)
            throw RelayError(std::string("sending AUTH: ") + std::strerror(errno));
        if (count < 0)
            WaitForSocket(control.wait, control.socket.Get(), POLLOUT);
        else
            bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

} // namespace

ServerConnection OpenServer(const ServerSettings& settings, const TlsContext& context, const Wait& wait) {
    ServerConnection server;
    server.peer = LookUp(settings);
    Descriptor socket = ConnectTcp(server.peer, settings.keep_alive, wait);
    if (!settings.implicit) {
        PlainControl control{socket, wait, {}};
        AwaitPlainReply(control, "the server's greeting");
        SendPlain(control, "AUTH TLS\r\n");
        AwaitPlainReply(control, "the server's reply to AUTH TLS");
    }
    server.stream = std::make_unique<TlsStream>(context, std::move(socket), nullptr);
    CompleteHandshake(*server.stream, wait);
    return server;
}

} // namespace tls
