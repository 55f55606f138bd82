// The server's side of TLS. A build without the tools has none: then MakeTlsContext throws.

#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

#include <sys/types.h>

#include "rehearsal.h"

namespace rehearsal {

class TlsContext;
class TlsSide;

struct TlsContextDeleter {
    void operator()(TlsContext* context) const;
};
struct TlsSideDeleter {
    void operator()(TlsSide* side) const;
};
using TlsContextOwner = std::unique_ptr<TlsContext, TlsContextDeleter>;
using TlsSideOwner = std::unique_ptr<TlsSide, TlsSideDeleter>;

// Any thread may use a context; it must outlive its connections. Throws std::runtime_error.
TlsContextOwner MakeTlsContext(const TlsOptions& options);

// Runs the handshake on a connected socket that blocks. `resumes`: the client may resume a session. Returns null when
// the handshake fails. The functions below belong to the thread of the connection.
TlsSideOwner AcceptTls(const TlsContext& context, int socket, bool resumes);

bool IsResumed(const TlsSide& side);
bool HasPending(const TlsSide& side); // received bytes that poll() does not see
// As recv(); 0 only when the client has sent close_notify.
ssize_t ReceiveTls(TlsSide& side, std::span<char> room);
bool SendTls(TlsSide& side, std::string_view bytes);
// Sends half of a record; nothing can be sent afterwards.
void SendHalfRecord(TlsSide& side);
// Sends close_notify and waits briefly for the client's. Returns whether that came.
bool CloseTls(TlsSide& side);

} // namespace rehearsal
