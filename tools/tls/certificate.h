// What a server's certificate says. Pure functions, for any thread.

#pragma once

#include <ctime>
#include <string>

#include <openssl/types.h>

namespace tls {

struct CertificateFacts {
    std::string subject = {}; // in one line, control characters masked
    std::string issuer = {};
    std::string names = {}; // DNS names and addresses that it is for, with blanks between; "" when it lists none
    std::string pin = {};   // sha256//... of its public key
    std::time_t not_before = 0;
    std::time_t expires = 0;

    bool IsKnown() const { return !pin.empty(); }
};

CertificateFacts ReadCertificate(X509* certificate);

// "sha256//" and the base64 of the SHA-256 of the public key (as curl and browsers pin it); "" when memory is short.
std::string PublicKeyPin(X509* certificate);

// Whether the text has the form of a pin.
bool IsPin(const std::string& text);

// 2026-11-22
std::string FormatDay(std::time_t moment);

// Whole days until then; negative once it has passed.
long DaysUntil(std::time_t moment, std::time_t now);

} // namespace tls
