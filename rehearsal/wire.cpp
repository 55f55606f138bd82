#include "wire.h"

#include <algorithm>

#include <poll.h>
#include <sys/socket.h>

#include "session.h"

namespace rehearsal {

ssize_t Receive(Wire& wire, std::span<char> room) {
    return wire.tls != nullptr ? ReceiveTls(*wire.tls, room) : ::recv(wire.socket.Get(), room.data(), room.size(), 0);
}

ssize_t ReceiveAll(Wire& wire, std::span<char> room) {
    if (wire.tls == nullptr)
        return ::recv(wire.socket.Get(), room.data(), room.size(), MSG_WAITALL);
    std::size_t filled = 0;
    while (filled < room.size()) {
        const ssize_t count = ReceiveTls(*wire.tls, room.subspan(filled));
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        filled += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(filled);
}

bool SendAll(Wire& wire, std::string_view bytes) {
    return wire.tls != nullptr ? SendTls(*wire.tls, bytes) : WriteAll(wire.socket.Get(), bytes.data(), bytes.size());
}

bool AwaitBytes(const Wire& wire, int milliseconds) {
    return (wire.tls != nullptr && HasPending(*wire.tls)) || WaitFor(wire.socket.Get(), POLLIN, milliseconds);
}

} // namespace rehearsal
