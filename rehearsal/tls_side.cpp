#include "tls_side.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <stdexcept>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

namespace rehearsal {

namespace {

struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using ContextOwner = std::unique_ptr<SSL_CTX, ContextFree>;

struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};

[[noreturn]] void Fail(const std::string& what) {
    const char* const reason = ERR_reason_error_string(ERR_get_error());
    throw std::runtime_error(what + (reason != nullptr ? std::string(": ") + reason : ""));
}

void DemandClientCertificate(SSL_CTX* context, const std::string& authority) {
    if (SSL_CTX_load_verify_locations(context, authority.c_str(), nullptr) != 1)
        Fail(authority);
    SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(authority.c_str()));
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

ContextOwner MakeContext(const TlsOptions& given, bool resumes) {
    TlsOptions options = given;
    if (!resumes && !options.unresumed_name.empty()) {
        options.certificate = options.unresumed_name + ".pem";
        options.key = options.unresumed_name + ".key";
    }
    ContextOwner owner(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* const context = owner.get();
    constexpr unsigned char name[] = "rehearsal";
    if (SSL_CTX_use_certificate_chain_file(context, options.certificate.c_str()) != 1)
        Fail(options.certificate);
    if (SSL_CTX_use_PrivateKey_file(context, options.key.c_str(), SSL_FILETYPE_PEM) != 1)
        Fail(options.key);
    SSL_CTX_set_session_id_context(context, name, sizeof name);
    if (options.only_1_2)
        SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    if (!options.client_ca.empty())
        DemandClientCertificate(context, options.client_ca);
    if (!resumes) {
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    }
    return owner;
}

} // namespace

class TlsContext {
public:
    explicit TlsContext(const TlsOptions& options)
        : resuming(MakeContext(options, true)), forgetful(MakeContext(options, false)) {}

    const ContextOwner resuming;
    const ContextOwner forgetful;
};

class TlsSide {
public:
    std::unique_ptr<SSL, SslFree> ssl;
};

void TlsContextDeleter::operator()(TlsContext* context) const {
    std::default_delete<TlsContext>()(context);
}

void TlsSideDeleter::operator()(TlsSide* side) const {
    std::default_delete<TlsSide>()(side);
}

TlsContextOwner MakeTlsContext(const TlsOptions& options) {
    return TlsContextOwner(std::make_unique<TlsContext>(options).release());
}

TlsSideOwner AcceptTls(const TlsContext& context, int socket, bool resumes) {
    auto side = std::make_unique<TlsSide>();
    side->ssl.reset(SSL_new((resumes ? context.resuming : context.forgetful).get()));
    ERR_clear_error();
    if (side->ssl == nullptr || SSL_set_fd(side->ssl.get(), socket) != 1 || SSL_accept(side->ssl.get()) != 1)
        return nullptr;
    return TlsSideOwner(side.release());
}

bool IsResumed(const TlsSide& side) {
    return SSL_session_reused(side.ssl.get()) == 1;
}

bool HasPending(const TlsSide& side) {
    return SSL_pending(side.ssl.get()) > 0;
}

ssize_t ReceiveTls(TlsSide& side, std::span<char> room) {
    ERR_clear_error();
    const int count =
        SSL_read(side.ssl.get(), room.data(), static_cast<int>(std::min<std::size_t>(room.size(), INT_MAX)));
    if (count > 0)
        return count;
    if (SSL_get_error(side.ssl.get(), count) == SSL_ERROR_ZERO_RETURN)
        return 0;
    errno = ECONNABORTED;
    return -1;
}

bool SendTls(TlsSide& side, std::string_view bytes) {
    ERR_clear_error();
    std::size_t count = 0;
    return bytes.empty() || SSL_write_ex(side.ssl.get(), bytes.data(), bytes.size(), &count) == 1;
}

void SendHalfRecord(TlsSide& side) {
    const int socket = SSL_get_fd(side.ssl.get());
    BIO* const record = BIO_new(BIO_s_mem());
    SSL_set0_wbio(side.ssl.get(), record);
    SendTls(side, std::string(1000, 'x'));
    char* made = nullptr;
    const long length = BIO_get_mem_data(record, &made);
    ::send(socket, made, static_cast<std::size_t>(std::max(length, 0L)) / 2, MSG_NOSIGNAL);
}

bool CloseTls(TlsSide& side) {
    constexpr timeval patience{2, 0};
    ::setsockopt(SSL_get_fd(side.ssl.get()), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ERR_clear_error();
    return SSL_shutdown(side.ssl.get()) == 1 || SSL_shutdown(side.ssl.get()) == 1;
}

} // namespace rehearsal
