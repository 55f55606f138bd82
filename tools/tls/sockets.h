// Socket helpers: addresses, and reset on close. For any thread.

#pragma once

#include <netinet/in.h>

#include "resources.h"

namespace tls {

sockaddr_in LocalAddress(const Descriptor& socket);

// Makes the next close of the socket send a reset, or not.
void SetResetOnClose(int socket, bool reset);

} // namespace tls
