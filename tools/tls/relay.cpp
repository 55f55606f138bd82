#include "relay.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sockets.h"
#include "text.h"

namespace tls {

namespace {

constexpr std::uint16_t ClientPort = 21; // the only one that the client connects to

bool IsLoopback(const sockaddr_in& address) {
    constexpr unsigned loopback_net = 127;
    return address.sin_family == AF_INET && ntohl(address.sin_addr.s_addr) >> 24 == loopback_net;
}

// Returns an open descriptor, or one that is not open with errno set.
Descriptor TryListen(const sockaddr_in& address) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.Get(), SOMAXCONN) != 0)
        socket.Reset();
    return socket;
}

sockaddr_in ParsePlace(const std::string& place) {
    const std::size_t colon = std::min(place.find(':'), place.size());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::optional<std::uint16_t> port = ClientPort;
    if (colon < place.size())
        port = ParseNumber<std::uint16_t>(std::string_view(place).substr(colon + 1));
    if (::inet_pton(AF_INET, place.substr(0, colon).c_str(), &address.sin_addr) != 1 || !port)
        throw RelayError("--listen " + place + ": not ADDRESS:PORT");
    if (!IsLoopback(address))
        throw RelayError("--listen " + place +
                         ": not a loopback address; the passphrase is not protected before it reaches the relay");
    address.sin_port = htons(*port);
    return address;
}

[[noreturn]] void FailToListen(const sockaddr_in& address) {
    const int error = errno;
    throw RelayError(FormatText("listen on %s:%d: %s%s", FormatAddress(address).c_str(), ntohs(address.sin_port),
                                std::strerror(error),
                                error == EACCES ? " (root, CAP_NET_BIND_SERVICE or a socket of systemd may; see "
                                                  "vondral-tls(1))"
                                                : ""));
}

} // namespace

std::string FormatAddress(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
}

Descriptor ListenOn(const std::string& place) {
    const sockaddr_in address = ParsePlace(place);
    Descriptor listener = TryListen(address);
    if (!listener.IsOpen())
        FailToListen(address);
    return listener;
}

Descriptor ListenAnywhere() {
    constexpr unsigned first = 127U << 24 | 21U << 16 | 1; // 127.21.0.1
    constexpr unsigned tries = 1000;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(ClientPort);
    for (unsigned i = 0; i < tries; ++i) {
        address.sin_addr.s_addr = htonl(first + i);
        Descriptor listener = TryListen(address);
        if (listener.IsOpen())
            return listener;
        if (errno != EADDRINUSE)
            break;
    }
    FailToListen(address);
}

Descriptor InheritedListener() {
    constexpr int first = 3; // by convention
    const char* const process = std::getenv("LISTEN_PID");
    const char* const count = std::getenv("LISTEN_FDS");
    if (process == nullptr || count == nullptr || ParseNumber<pid_t>(process) != ::getpid())
        return Descriptor();
    if (std::string_view(count) != "1")
        throw RelayError(std::string("LISTEN_FDS=") + count + ": one socket is expected");
    Descriptor listener(first);
    ::fcntl(first, F_SETFD, FD_CLOEXEC);
    ::fcntl(first, F_SETFL, ::fcntl(first, F_GETFL) & ~O_NONBLOCK);
    int listens = 0;
    socklen_t length = sizeof listens;
    if (::getsockopt(first, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) != 0 || listens == 0)
        throw RelayError("the inherited descriptor is not a listening socket");
    if (!IsLoopback(LocalAddress(listener)))
        throw RelayError("the inherited socket does not listen on an IPv4 loopback address");
    for (const char* const variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
        ::unsetenv(variable);
    return listener;
}

Relay::Relay(RelayState& state, Descriptor listener)
    : state_(state), listener_(std::move(listener)), wake_(::eventfd(0, EFD_CLOEXEC)) {
    if (!wake_.IsOpen())
        throw RelayError(std::string("eventfd: ") + std::strerror(errno));
    // A client that is gone again before accept() must not block it.
    ::fcntl(listener_.Get(), F_SETFL, ::fcntl(listener_.Get(), F_GETFL) | O_NONBLOCK);
    accepting_ = std::thread([this] { Accept(); });
}

Relay::~Relay() {
    ending_ = true;
    // The listening socket may be shared with whoever handed it over: shutting it down would end it for them too.
    ::eventfd_write(wake_.Get(), 1);
    accepting_.join();
    for (RunningSession& running : sessions_)
        running.session.Interrupt();
    for (RunningSession& running : sessions_)
        running.thread.join();
}

void Relay::Accept() {
    while (!ending_) {
        std::array<pollfd, 2> set{{{listener_.Get(), POLLIN, 0}, {wake_.Get(), POLLIN, 0}}};
        if (::poll(set.data(), set.size(), -1) < 0 || set[1].revents != 0 || set[0].revents == 0)
            continue;
        Descriptor client(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.IsOpen() && !ending_)
            Start(std::move(client));
        else if (!ending_ && errno != EINTR && errno != ECONNABORTED && errno != EAGAIN)
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // out of descriptors, probably for a short time
    }
}

void Relay::Start(Descriptor client) {
    const int on = 1;
    ::setsockopt(client.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    RemoveEndedSessions();
    RunningSession& running = sessions_.emplace_back(state_, std::move(client), ++accepted_);
    try {
        running.thread = std::thread([&running] {
            running.session.Run();
            running.ended = true;
        });
    } catch (const std::system_error& error) { // out of threads, probably for a short time
        state_.log(FormatText("[%d] no thread for the session: %s", accepted_, error.what()));
        sessions_.pop_back();
    }
}

void Relay::RemoveEndedSessions() {
    sessions_.remove_if([](RunningSession& running) {
        const bool ended = running.ended; // read once: what is removed must have been joined
        if (ended)
            running.thread.join();
        return ended;
    });
}

} // namespace tls
