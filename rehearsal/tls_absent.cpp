// Stands in for tls_side.cpp in a build without OpenSSL.

#include <stdexcept>

#include "tls_side.h"

namespace rehearsal {

void TlsContextDeleter::operator()(TlsContext*) const {}

void TlsSideDeleter::operator()(TlsSide*) const {}

TlsContextOwner MakeTlsContext(const TlsOptions&) {
    throw std::runtime_error("built without TLS (see VONDRAL_TOOLS in README.md)");
}

TlsSideOwner AcceptTls(const TlsContext&, int, bool) {
    return nullptr;
}

bool IsResumed(const TlsSide&) {
    return false;
}

bool HasPending(const TlsSide&) {
    return false;
}

ssize_t ReceiveTls(TlsSide&, std::span<char>) {
    return -1;
}

bool SendTls(TlsSide&, std::string_view) {
    return false;
}

void SendHalfRecord(TlsSide&) {}

bool CloseTls(TlsSide&) {
    return false;
}

} // namespace rehearsal
