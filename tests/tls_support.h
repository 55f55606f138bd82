// Certificates, and a relay in the test's own process.

#pragma once

#include <mutex>

#include "relay.h"
#include "sockets.h"
#include "test_support.h"

// Files made once per process, by name: ca, other-ca; good, wrong-name, soon and expired of ca; self-signed; client of
// ca. Each NAME.pem has its NAME.key. All of the server's are for 127.0.0.1 and localhost, but for wrong-name.
std::string CertificateFile(const std::string& name);
std::string KeyFile(const std::string& name);
std::string PinOf(const std::string& name);

Outcome RunProgram(const std::string& executable, const std::vector<std::string>& arguments);

// The server's side of TLS with one of the certificates.
rehearsal::TlsOptions ServerTls(const std::string& certificate);

struct RelayOptions {
    tls::ServerSettings server{.host = "127.0.0.1"};
    tls::TlsSettings tls{.name = "127.0.0.1", .ca = CertificateFile("ca")};
    bool accept_missing_close_notify = false;
};

class TestRelay {
public:
    TestRelay(RelayOptions options, std::uint16_t server_port);

    std::uint16_t Port() const { return ntohs(tls::LocalAddress(relay_.Listener()).sin_port); }
    std::string Log() const;

private:
    mutable std::mutex mutex_;
    std::string log_; // guarded by mutex_
    tls::RelayState state_;
    tls::Relay relay_;
};
