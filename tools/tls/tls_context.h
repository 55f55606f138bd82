// What every TLS connection to the server has in common: who is trusted, what the certificate must say, and what this
// side shows of itself. A context does not change after construction; any thread may use it.

#pragma once

#include <string>
#include <vector>

#include "certificate.h"
#include "openssl_owners.h"

namespace tls {

struct TlsSettings {
    std::string name = {};              // host name or IPv4 address that the certificate must be for
    std::string ca = {};                // file with the only certificates to trust; "": those of the system
    std::vector<std::string> pins = {}; // one of which the public key must match; empty: any key
    std::string certificate = {};       // file with the client's certificate and its chain; "": none
    std::string key = {};               // file with its key; "": the certificate's file
    int min_version = TLS1_2_VERSION;
};

// What the check of a certificate came to. Filled during the handshake, and empty when the connection was resumed.
struct PeerVerdict {
    CertificateFacts certificate;
    int error = 0; // X509_V_ERR_..., 0 while nothing is wrong
    bool pin_mismatch = false;
};

class TlsContext {
public:
    // Throws std::runtime_error, which names the file that cannot be used.
    explicit TlsContext(TlsSettings settings);
    TlsContext(const TlsContext&) = delete; // OpenSSL has the address of the settings
    TlsContext& operator=(const TlsContext&) = delete;

    // A connection about to begin its handshake. The verdict is filled during the handshake, and `newest` becomes the
    // session to resume, which TLS 1.3 sends at any later time; both must live longer.
    SslOwner NewConnection(int socket, PeerVerdict& verdict, SessionOwner& newest) const;

    const TlsSettings& Settings() const { return settings_; }

private:
    const TlsSettings settings_;
    SslContextOwner context_;
};

// Why a certificate was refused, what it says, and what the administrator can do about it, in one line. Requires: the
// verdict has an error.
std::string DescribeRefusal(const PeerVerdict& verdict, const TlsSettings& settings);

// Whether the server has probably forgotten this session: it is older than the server said that it would keep it.
bool IsExpired(const SSL_SESSION* session, std::time_t now);

} // namespace tls
