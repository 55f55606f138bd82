// One data connection: to the server under TLS, to the client in the clear. Belongs to the thread of its session, and
// waits only through the wait that the session lends.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server_connection.h"

namespace tls {

// How a transfer ended.
struct DataEnd {
    std::string cut;                   // what cut it, "" when it is whole
    bool without_close_notify = false; // whole only because that is accepted
    std::uint64_t bytes = 0;
};

class DataChannel {
public:
    // `server` is connected; no byte is sent before Protect.
    explicit DataChannel(Descriptor server) : socket_(std::move(server)) {}

    // Runs the handshake, resuming `session` unless that is null. Throws RelayError.
    void Protect(const TlsContext& context, SSL_SESSION* session, const Wait& wait);
    // Makes the server see a broken transfer when the channel is destroyed; not once an upload is whole.
    void ResetOnClose();
    // Requires: Protect has returned.
    const TlsStream& Stream() const { return *stream_; }

    // Both end the server's side, and set up the end of the client's: a close when the transfer is whole, otherwise a
    // reset when `client` is closed. A wait that gives up cuts the transfer.
    DataEnd Download(int client, bool accept_missing_close_notify, const Wait& wait);
    // Whole means that the server was told where the data end. Whether it has stored them its final reply says. The
    // server's side stays open until the channel is destroyed: closing it early could reset it.
    DataEnd Upload(int client, const Wait& wait);

private:
    DataEnd Cut(const std::string& reason);

    Descriptor socket_; // until Protect
    std::unique_ptr<TlsStream> stream_;
    std::uint64_t bytes_ = 0;
    bool uploaded_ = false; // the server was told where the data end
};

} // namespace tls
