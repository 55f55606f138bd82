// The socket calls that both connections of a session share. Silent: each leaves errno to its caller.

#pragma once

#include <array>
#include <cstddef>
#include <span>

#include <netinet/in.h>
#include <poll.h>

#include "resources.h"

constexpr int PollMilliseconds = 60000; // every poll() of a socket; longer waits repeat it

// The connections of a session that are waited for.
struct PollSet {
    std::array<pollfd, 2> entries{{{-1, 0, 0}, {-1, 0, 0}}};
    std::size_t count = 0;
    int control = -1; // index, -1 when not polled
    int data = -1;

    int Add(const Descriptor& socket, short events) {
        entries[count] = {socket.Get(), events, 0};
        return static_cast<int>(count++);
    }
    int Events(int index) const {
        return index < 0 ? 0 : static_cast<unsigned short>(entries[static_cast<std::size_t>(index)].revents);
    }
};

// poll() for PollMilliseconds, repeated after a signal.
int PollSockets(std::span<pollfd> set);
int PollSocket(const Descriptor& socket, short events);

// Sets one option to 1 and returns setsockopt's result.
int SwitchOn(const Descriptor& socket, int level, int option);

// An urgent byte would wake every poll() without ever being read; inline it is data like any other.
void KeepUrgentDataInline(const Descriptor& socket);

Descriptor OpenSocket(int protocol);
int ConnectSocket(const Descriptor& socket, const sockaddr_in& address);

// Whether a call failed only because it would have blocked, or a signal interrupted it.
bool WouldBlock();
