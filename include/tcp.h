// The socket calls that both connections of a session share. Silent: each leaves errno to its caller.

#pragma once

#include <span>

#include <netinet/in.h>
#include <poll.h>

#include "resources.h"

constexpr int PollMilliseconds = 60000; // every poll() of a socket; longer waits repeat it

// poll() for PollMilliseconds, repeated after a signal.
int PollSockets(std::span<pollfd> set);
int PollSocket(const Descriptor& socket, short events);

// Sets one option to 1 and returns setsockopt's result.
int SwitchOn(const Descriptor& socket, int level, int option);

// An urgent byte would wake every poll() without ever being read; inline it is data like any other.
void KeepUrgentDataInline(const Descriptor& socket);

Descriptor OpenSocket(int protocol);
int ConnectSocket(const Descriptor& socket, const sockaddr_in& address);

// Whether a call that must not block failed for no other reason than that.
bool WouldBlock();
