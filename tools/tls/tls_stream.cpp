#include "tls_stream.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <openssl/err.h>
#include <sys/socket.h>

#include "sockets.h"

namespace tls {

TlsStream::TlsStream(const TlsContext& context, Descriptor socket, SSL_SESSION* resume)
    : context_(context), socket_(std::move(socket)), ssl_(context.NewConnection(socket_.Get(), verdict_, newest_)) {
    if (resume == nullptr)
        return;
    // A copy: OpenSSL uses a session of TLS 1.3 once, and gives it up with a connection that was cut.
    const SessionOwner copy(SSL_SESSION_dup(resume));
    SSL_set_session(ssl_.get(), copy.get());
}

IoResult TlsStream::Fail(const std::string& reason) {
    reason_ = reason;
    return {Io::Failed};
}

// What a call that moved nothing ran into. Requires: the error queue was empty before it.
IoResult TlsStream::Judge(int result) {
    const int error = errno;
    switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return {Io::WantRead};
    case SSL_ERROR_WANT_WRITE:
        return {Io::WantWrite};
    case SSL_ERROR_ZERO_RETURN:
        return {Io::Closed};
    case SSL_ERROR_SYSCALL:
        return Fail(std::strerror(error));
    default:
        break;
    }
    const bool ended = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
    const std::string reason = OpenSslError();
    if (!ended)
        return Fail(reason);
    // Bytes of a record that did not arrive whole cannot be where a server ends.
    const bool within_record =
        SSL_has_pending(ssl_.get()) == 1 || std::strcmp(SSL_rstate_string(ssl_.get()), "RB") == 0;
    return within_record ? Fail("the connection ended within a TLS record") : IoResult{Io::Cut};
}

IoResult TlsStream::Handshake() {
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl_.get());
    if (result == 1)
        return {Io::Done};
    const IoResult judged = Judge(result);
    if (verdict_.error != X509_V_OK)
        return Fail(DescribeRefusal(verdict_, context_.Settings()));
    if (judged.io == Io::Cut || judged.io == Io::Closed)
        return Fail("the server ended the connection during the TLS handshake");
    return judged.io == Io::Failed ? Fail("TLS handshake: " + reason_) : judged;
}

IoResult TlsStream::Read(std::span<char> room) {
    ERR_clear_error();
    std::size_t count = 0;
    const int result = SSL_read_ex(ssl_.get(), room.data(), room.size(), &count);
    return result == 1 ? IoResult{Io::Done, count} : Judge(result);
}

IoResult TlsStream::Write(std::string_view bytes) {
    ERR_clear_error();
    std::size_t count = 0;
    const int result = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count);
    return result == 1 ? IoResult{Io::Done, count} : Judge(result);
}

IoResult TlsStream::CloseNotify() {
    ERR_clear_error();
    const int result = SSL_shutdown(ssl_.get());
    if (result < 0)
        return Judge(result);
    ::shutdown(socket_.Get(), SHUT_WR);
    return {Io::Done};
}

void TlsStream::ResetOnClose() {
    SetResetOnClose(socket_.Get(), true);
}

} // namespace tls
