// One TLS connection to the server, over a socket that does not block. Belongs to one thread. No call waits: the caller
// polls for what the result names.

#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "resources.h"
#include "tls_context.h"

namespace tls {

enum class Io {
    Done,      // `count` bytes were moved, or the handshake is complete
    WantRead,  // nothing was; poll for POLLIN
    WantWrite, // the same for POLLOUT
    Closed,    // the server has said that it is the end (close_notify)
    Cut,       // the connection ended without that, between two records
    Failed,    // anything else: Reason() says what
};

struct IoResult {
    Io io;
    std::size_t count = 0;
};

class TlsStream {
public:
    // Requires: a connected socket that does not block. `resume` may be null. Throws std::runtime_error.
    TlsStream(const TlsContext& context, Descriptor socket, SSL_SESSION* resume);
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    IoResult Handshake();
    IoResult Read(std::span<char> room);
    IoResult Write(std::string_view bytes); // may move some of them only
    // Says that this is the end, and ends the sending half of the socket. Reading goes on.
    IoResult CloseNotify();
    // Makes the destruction of the stream reset the connection.
    void ResetOnClose();

    int Socket() const { return socket_.Get(); }
    bool IsResumed() const { return SSL_session_reused(ssl_.get()) == 1; }
    // The newest session to resume, or null.
    SSL_SESSION* Newest() const { return newest_.get(); }
    // Of a connection that was not resumed.
    const CertificateFacts& Certificate() const { return verdict_.certificate; }
    std::string Protocol() const { return SSL_get_version(ssl_.get()); }
    std::string Cipher() const { return SSL_get_cipher_name(ssl_.get()); }
    // What the last call that returned Failed ran into; for a handshake, with the certificate and what to do.
    const std::string& Reason() const { return reason_; }

private:
    IoResult Judge(int result);
    IoResult Fail(const std::string& reason);

    const TlsContext& context_;
    Descriptor socket_;
    PeerVerdict verdict_;
    SessionOwner newest_;
    SslOwner ssl_; // last: its destruction may not use the members above
    std::string reason_;
};

} // namespace tls
