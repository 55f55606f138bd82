// The way to a protected control connection: look-up, connect, AUTH TLS (or TLS from the start), handshake. Blocking
// for the caller, who lends the wait; any thread.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <poll.h>

#include "tls_stream.h"

namespace tls {

struct ServerSettings {
    std::string host = {};
    std::uint16_t port = 21;
    bool implicit = false; // TLS from the first byte on, without AUTH
    int keep_alive = 60;   // seconds of silence after which TCP asks whether the server is still there
};

// Why there is no session, for the log and for the client.
struct RelayError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Waits for the events of `own`, and meanwhile watches whatever else can end the caller's work: then it throws. Returns
// false when the caller should give up waiting.
using Wait = std::function<bool(std::span<pollfd> own)>;

// Waits for one descriptor. Throws RelayError when the wait gives up.
void WaitForSocket(const Wait& wait, int socket, short events);

// Waits for what the result of a TlsStream names. Requires: WantRead or WantWrite.
void WaitForStream(const Wait& wait, const TlsStream& stream, Io io);

// Connects, without blocking, a socket that TCP watches (keep-alive). Throws RelayError.
Descriptor ConnectTcp(const sockaddr_in& address, int keep_alive, const Wait& wait);

// Runs the handshake to its end. Throws RelayError.
void CompleteHandshake(TlsStream& stream, const Wait& wait);

struct ServerConnection {
    std::unique_ptr<TlsStream> stream; // handshake complete, certificate verified
    sockaddr_in peer{};                // where it leads; data connections go there too
};

// Nothing but AUTH TLS has been sent when this returns. With implicit TLS the server's greeting is the next it sends.
// Throws RelayError.
ServerConnection OpenServer(const ServerSettings& settings, const TlsContext& context, const Wait& wait);

} // namespace tls
