// What is told of a server's TLS: for people, as JSON, and as gauges.

#pragma once

#include <ctime>
#include <string>

#include "server_connection.h"

namespace tls {

// What a connection to the server has shown, as far as it went.
struct ServerReport {
    std::string server; // as given
    std::string protocol;
    std::string cipher;
    CertificateFacts certificate; // of a refused one too
    std::string error;            // why the server cannot be used; "" when it can
};

// Connects, checks the certificate and leaves. No step waits longer than half a minute.
ServerReport CheckServer(const ServerSettings& settings, const TlsContext& context);

std::string ReportText(const ServerReport& report, std::time_t now); // several lines
std::string ReportJson(const ServerReport& report, std::time_t now); // one line

// Gauges for node_exporter, of a certificate that was accepted.
std::string Gauges(const std::string& server, const CertificateFacts& certificate);

// "the certificate of ... expires on ... (in 12 days)"; "" with more than 30 days left.
std::string ExpiryWarning(const std::string& server, const CertificateFacts& certificate, std::time_t now);

} // namespace tls
