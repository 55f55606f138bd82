#include "sockets.h"

#include <sys/socket.h>

namespace tls {

sockaddr_in LocalAddress(const Descriptor& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

void SetResetOnClose(int socket, bool reset) {
    const linger at_once{reset ? 1 : 0, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

} // namespace tls
