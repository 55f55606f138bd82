// One TCP connection of a session, in the clear or under TLS. Belongs to the session's thread, but for the socket,
// which others may shut down.

#pragma once

#include <span>
#include <string_view>

#include "resources.h"
#include "tls_side.h"

namespace rehearsal {

struct Wire {
    Descriptor socket;
    TlsSideOwner tls; // null: in the clear
};

// As recv(), but also 0 after an end that TLS announces, and -1 after any other end under TLS.
ssize_t Receive(Wire& wire, std::span<char> room);
// The same until `room` is full or nothing more comes.
ssize_t ReceiveAll(Wire& wire, std::span<char> room);
bool SendAll(Wire& wire, std::string_view bytes);
// Waits until Receive has something to say. Returns false when the time is over.
bool AwaitBytes(const Wire& wire, int milliseconds);

} // namespace rehearsal
