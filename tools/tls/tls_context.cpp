#include "tls_context.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "text.h"

namespace tls {

namespace {

constexpr std::size_t ReadBuffer = 4 * SSL3_RT_MAX_ENCRYPTED_LENGTH; // bytes: four full records in one read

bool IsAddress(const std::string& name) {
    in_addr ignored{};
    return ::inet_pton(AF_INET, name.c_str(), &ignored) == 1;
}

// Errors that say only that nobody vouches for the certificate.
bool IsTrustError(int error) {
    switch (error) {
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_UNTRUSTED:
        return true;
    default:
        return false;
    }
}

// Where OpenSSL's callbacks find what belongs to a connection.
int VerdictIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

int NewestIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

// With pins and no CA file the key itself is what is trusted, so nobody else has to vouch for it. Everything else that
// is wrong with the certificate still counts.
int AcceptUnvouched(int ok, X509_STORE_CTX* store) {
    if (ok == 1 || !IsTrustError(X509_STORE_CTX_get_error(store)))
        return ok;
    X509_STORE_CTX_set_error(store, X509_V_OK);
    return 1;
}

// Runs in the handshake, before this side has sent anything but handshake messages.
int VerifyPeer(X509_STORE_CTX* store, void* given) {
    const auto& settings = *static_cast<const TlsSettings*>(given);
    auto* const ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& verdict = *static_cast<PeerVerdict*>(SSL_get_ex_data(ssl, VerdictIndex()));
    const bool chain_is_good = X509_verify_cert(store) == 1;
    verdict.certificate = ReadCertificate(X509_STORE_CTX_get0_cert(store));
    verdict.error = chain_is_good ? X509_V_OK : X509_STORE_CTX_get_error(store);
    verdict.pin_mismatch =
        !settings.pins.empty() && std::ranges::find(settings.pins, verdict.certificate.pin) == settings.pins.end();
    if (chain_is_good && verdict.pin_mismatch)
        X509_STORE_CTX_set_error(store, verdict.error = X509_V_ERR_APPLICATION_VERIFICATION);
    return verdict.error == X509_V_OK ? 1 : 0;
}

// Called for each session to resume; returns 1 to keep it.
int KeepSession(SSL* ssl, SSL_SESSION* session) {
    static_cast<SessionOwner*>(SSL_get_ex_data(ssl, NewestIndex()))->reset(session);
    return 1;
}

// Instead of asking on a terminal.
int RefusePassphrase(char*, int, int, void*) {
    return -1;
}

[[noreturn]] void Fail(const std::string& what) {
    const std::string reason = OpenSslError();
    throw std::runtime_error(what + (reason.empty() ? "" : ": " + reason));
}

void LoadTrust(SSL_CTX* context, const TlsSettings& settings) {
    if (settings.ca.empty()) {
        if (SSL_CTX_set_default_verify_paths(context) != 1)
            Fail("the system's certificates");
        return;
    }
    if (SSL_CTX_load_verify_locations(context, settings.ca.c_str(), nullptr) != 1)
        Fail("--ca " + settings.ca);
    // The file may also name the server's own certificate, or an authority below a root.
    X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(context), X509_V_FLAG_PARTIAL_CHAIN);
}

void LoadClientCertificate(SSL_CTX* context, const TlsSettings& settings) {
    if (settings.certificate.empty())
        return;
    SSL_CTX_set_default_passwd_cb(context, RefusePassphrase);
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1)
        Fail("--cert " + settings.certificate);
    const std::string& key = settings.key.empty() ? settings.certificate : settings.key;
    if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1)
        Fail("--key " + key);
}

void ExpectName(SSL* ssl, const std::string& name) {
    X509_VERIFY_PARAM* const expected = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const int result = IsAddress(name) ? X509_VERIFY_PARAM_set1_ip_asc(expected, name.c_str())
                                       : X509_VERIFY_PARAM_set1_host(expected, name.data(), name.size());
    if (result != 1 || (!IsAddress(name) && SSL_set_tlsext_host_name(ssl, name.c_str()) != 1))
        Fail("the server's name");
}

} // namespace

TlsContext::TlsContext(TlsSettings settings)
    : settings_(std::move(settings)), context_(SSL_CTX_new(TLS_client_method())) {
    SSL_CTX* const context = context_.get();
    if (context == nullptr || SSL_CTX_set_min_proto_version(context, settings_.min_version) != 1)
        Fail("OpenSSL");
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_ENABLE_KTLS);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_default_read_buffer_len(context, ReadBuffer);
    LoadTrust(context, settings_);
    LoadClientCertificate(context, settings_);
    const bool key_is_enough = !settings_.pins.empty() && settings_.ca.empty();
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, key_is_enough ? AcceptUnvouched : nullptr);
    SSL_CTX_set_cert_verify_callback(context, VerifyPeer, const_cast<TlsSettings*>(&settings_));
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context, KeepSession);
}

SslOwner TlsContext::NewConnection(int socket, PeerVerdict& verdict, SessionOwner& newest) const {
    SslOwner ssl(SSL_new(context_.get()));
    if (ssl == nullptr || SSL_set_fd(ssl.get(), socket) != 1 ||
        SSL_set_ex_data(ssl.get(), VerdictIndex(), &verdict) != 1 ||
        SSL_set_ex_data(ssl.get(), NewestIndex(), &newest) != 1)
        Fail("OpenSSL");
    ExpectName(ssl.get(), settings_.name);
    SSL_set_connect_state(ssl.get());
    return ssl;
}

namespace {

// What the administrator can do.
std::string Remedy(const PeerVerdict& verdict, const TlsSettings& settings) {
    const CertificateFacts& certificate = verdict.certificate;
    if (verdict.pin_mismatch)
        return "if the key was changed on purpose: --pin " + certificate.pin;
    if (IsTrustError(verdict.error))
        return "name the authority that issued it with --ca FILE, or, if this is the server's key, give --pin " +
               certificate.pin;
    switch (verdict.error) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "it is for " + (certificate.names.empty() ? "its subject" : certificate.names) +
               ": use that name with --server, or with --name";
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "it expired on " + FormatDay(certificate.expires) + ": renew it on the server";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "it is valid from " + FormatDay(certificate.not_before) + ": check the clocks";
    default:
        return "replace it on the server (" + settings.name + ")";
    }
}

} // namespace

std::string DescribeRefusal(const PeerVerdict& verdict, const TlsSettings& settings) {
    const CertificateFacts& certificate = verdict.certificate;
    const std::string reason =
        verdict.pin_mismatch ? "its key does not match --pin" : X509_verify_cert_error_string(verdict.error);
    return "certificate of " + settings.name + " refused: " + reason + " (subject " + certificate.subject +
           "; issuer " + certificate.issuer + "); " + Remedy(verdict, settings);
}

bool IsExpired(const SSL_SESSION* session, std::time_t now) {
    long lifetime = SSL_SESSION_get_timeout(session);
    const auto hint = static_cast<long>(SSL_SESSION_get_ticket_lifetime_hint(session));
    if (hint > 0)
        lifetime = std::min(lifetime, hint);
    return SSL_SESSION_get_time(session) + lifetime <= now;
}

} // namespace tls
