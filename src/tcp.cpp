#include "tcp.h"

#include <cerrno>

#include <sys/socket.h>

int PollSockets(std::span<pollfd> set) {
    int events;
    do {
        events = ::poll(set.data(), set.size(), PollMilliseconds);
    } while (events < 0 && errno == EINTR);
    return events;
}

int PollSocket(const Descriptor& socket, short events) {
    pollfd entry{socket.Get(), events, 0};
    return PollSockets({&entry, 1});
}

int SwitchOn(const Descriptor& socket, int level, int option) {
    const int on = 1;
    return ::setsockopt(socket.Get(), level, option, &on, sizeof on);
}

void KeepUrgentDataInline(const Descriptor& socket) {
    SwitchOn(socket, SOL_SOCKET, SO_OOBINLINE);
}

Descriptor OpenSocket(int protocol) {
    return Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, protocol));
}

int ConnectSocket(const Descriptor& socket, const sockaddr_in& address) {
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool WouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}
