#include "name_lookup.h"

#include <cstring>
#include <mutex>
#include <string_view>

#include <netdb.h>

#include "text.h"

namespace {

std::mutex LookupLock; // guards the static storage that the answers below point to

// Requires: LookupLock is held. The same goes for the two that follow.
std::string FindHost(const char* host, sockaddr_in& address) {
    const hostent* entry = ::gethostbyname(host);
    const int error = h_errno;
    ::endhostent();
    if (entry == nullptr)
        return FormatText("gethostbyname(%s): %s", host, hstrerror(error));
    const int length = sizeof address.sin_addr;
    if (entry->h_length != length)
        return FormatText("gethostbyname(%s) address length (%d) != %d", host, entry->h_length, length);
    std::memcpy(&address.sin_addr, entry->h_addr_list[0], sizeof address.sin_addr);
    return {};
}

// A statically linked program may run where there are no databases, so it knows what every connection asks for.
#ifdef VONDRAL_STATIC
constexpr bool HasOwnEntries = true;
#else
constexpr bool HasOwnEntries = false;
#endif

std::string FindProtocol(const char* name, int& protocol) {
    const protoent* entry = ::getprotobyname(name);
    if (entry == nullptr && HasOwnEntries && std::string_view(name) == "tcp") {
        protocol = IPPROTO_TCP;
        return {};
    }
    const std::string failure = entry == nullptr ? FormatText("getprotobyname(%s)", name) : "";
    if (entry != nullptr)
        protocol = entry->p_proto;
    ::endprotoent();
    return failure;
}

std::string FindService(const char* service, sockaddr_in& address, int& protocol) {
    const servent* entry = ::getservbyname(service, "tcp");
    if (entry == nullptr && HasOwnEntries && std::string_view(service) == "ftp") {
        address.sin_port = htons(21);
        protocol = IPPROTO_TCP;
        return {};
    }
    if (entry == nullptr)
        return FormatText("getservbyname(%s)", service);
    address.sin_port = static_cast<in_port_t>(entry->s_port);
    const std::string failure = FindProtocol(entry->s_proto, protocol);
    ::endservent();
    return failure;
}

} // namespace

std::string LookUpServer(const char* host, const char* service, sockaddr_in& address, int& protocol) {
    const std::lock_guard<std::mutex> lock(LookupLock);
    address.sin_family = AF_INET;
    const std::string failure = FindHost(host, address);
    return failure.empty() ? FindService(service, address, protocol) : failure;
}

std::string LookUpProtocol(const char* name, int& protocol) {
    const std::lock_guard<std::mutex> lock(LookupLock);
    return FindProtocol(name, protocol);
}
