#include "passive_reply.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

namespace {

// The first four numbers, with dots between them. Moves `from` past them.
void CopyAddressText(const char*& from, PassiveAddress& passive) {
    std::size_t length = 0;
    for (int commas = 0; *from != '\0' && length < INET_ADDRSTRLEN; ++from) {
        if (*from == ',' && ++commas == 4)
            break;
        passive.text[length++] = *from == ',' ? '.' : *from;
    }
    passive.text[length] = '\0';
}

// ",p1,p2": the port's high and low byte. Values beyond a byte are not refused; they spill over as the server sent
// them.
bool ParsePort(const char* from, in_port_t& port) {
    char* end;
    const unsigned long high = std::strtoul(from + 1, &end, 10);
    if (end == from + 1 || *end != ',')
        return false;
    const char* const second = end + 1;
    const unsigned long low = std::strtoul(second, &end, 10);
    port = htons(static_cast<std::uint16_t>((high << 8) | low));
    return end != second;
}

} // namespace

std::string ParsePassiveReply(const char* reply, PassiveAddress& passive) {
    passive.address = {};
    passive.address.sin_family = AF_INET;
    if (std::strncmp(reply, "227 ", 4) != 0)
        return "bad PASV response";
    const char* from = std::strpbrk(reply + 4, "123456789");
    if (from == nullptr)
        return "PASV response without address";
    CopyAddressText(from, passive);
    const int converted = ::inet_pton(AF_INET, passive.text.data(), &passive.address.sin_addr);
    if (converted < 0)
        return std::string("PASV response address: ") + std::strerror(errno);
    if (converted == 0 || *from != ',')
        return "PASV response address invalid";
    if (!ParsePort(from, passive.address.sin_port))
        return "PASV response port invalid";
    return {};
}
