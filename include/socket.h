// FTP transport: the control connection of one session with its reply reader, command sending, and the passive data
// connection that a transfer moves its bytes over. Blocking, one thread per session: a connection is only ever touched
// by the thread that owns its session.
//
// When the control connection fails, its socket is closed and the session's BrokenHandler is called. That either
// throws, to the protected operation that is under way (see ftp.h), or returns; each procedure below then returns -1.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "passive_reply.h"
#include "reply_buffer.h"
#include "support.h"

// The first bytes of a record of the transport and session layers, compared before every use.
using RecordTag = std::array<char, 4>;
constexpr RecordTag ControlTag{'f', 't', 'p', 'c'};
constexpr RecordTag DataTag{'f', 't', 'p', 'd'};

// What the run's settings say about the transport.
struct TransportOptions {
    int verbosity = 0;
    int timeout = 8; // minutes of silence that a transfer survives
};

// Called when the control connection has failed and is closed: throws, or returns when there is no way out.
using BrokenHandler = std::function<void()>;

constexpr int LongestReplies = 300000;          // bytes of replies to one command, or of one greeting
constexpr std::size_t TransferCapacity = 65536; // bytes handed to a DataCallback at once

// One TCP connection. The data variant does not use the reply fields, the control variant not the transfer buffer.
struct FtpConnection {
    RecordTag tag{}; // set when the record is ready for use
    int protocol = 0;
    TransportOptions options;
    Descriptor socket;   // open only while connected
    PassiveAddress peer; // control: the server as connected; data: the address in the last 227 reply

    // Control variant
    BrokenHandler on_broken;
    std::unique_ptr<FtpConnection> data; // made when the session is opened
    ReplyBuffer replies;
    std::int64_t reply_bytes = 0; // read since the last command, or since the connection was made

    // Data variant
    Mapping transfer_buffer; // TransferCapacity bytes, made by the first transfer and kept
};

// Receives the data of a LIST or RETR: `buffer` holds `count` bytes, 1 to TransferCapacity. Returns 0 to continue,
// anything else to abort the transfer.
using DataCallback = int (*)(void* argument, char* buffer, int* count);

// Supplies the data of a STOR: sets `data` to the next bytes, at most `room.size()`, in `room` or in memory of the
// source's own, where they stay until its next call; empty at the end of the data. Returns 0 to continue, anything else
// to abort the transfer.
using DataSource = int (*)(void* argument, std::span<char> room, std::string_view& data);

// Moves the next data of a STOR from a file to `socket`, which must not block, without a copy in this program. Returns
// the bytes moved; 0 when the DataSource has to supply the next ones; -1 with errno set when the socket takes none:
// EAGAIN and EINTR ask for another try when it has room, anything else ends the upload.
using DataForwarder = ssize_t (*)(void* argument, int socket);

// What a command transfers: nothing, or one direction.
struct Transfer {
    DataCallback receive = nullptr;
    DataSource send = nullptr;
    DataForwarder forward = nullptr; // optional, beside `send`; asked again after each of its calls
    void* argument = nullptr;        // handed to the function
};

// Resolves the host, connects to its port for `service` ("ftp"; IPv4 only), reads the greeting and makes the data
// record. Returns nothing after a failure, which is logged.
std::unique_ptr<FtpConnection> OpenConnections(const char* host, const char* service, const TransportOptions& options,
                                               BrokenHandler on_broken);

// Connects a control connection and reads the greeting. Returns 0, or -1 after logging the reason, with the socket
// closed. Requires: it is closed; an open one stays as it is, and the result is -1.
int ConnectControl(FtpConnection* control);

// Stores the next reply line, without its line end, in `line`. Returns 0 when it is positive (2xx, 3xx), 1 when it is
// not (1xx included), -1 when there is none. Intermediate lines of a reply are dropped when they came with a read of
// this call. A minute's silence returns -1 and leaves the connection open.
int ReadReply(FtpConnection* control, std::span<char, ReplyCapacity> line);

// Sends one command and waits for its final reply, moving the transfer's data meanwhile. The command has no line end;
// up to 4092 characters are sent whole.
//
//    0: the final reply was positive and a transfer ended normally;
//    1: the final reply was negative, whatever became of the data before;
//   -1: anything else failed: the record, the command's length, either connection, the callback.
//
// `reply`, when given, receives every reply line that is not positive (as strncpy does: cut, and then without a
// terminator), so that after a 1 it contains the refusal; after SYST it receives the positive reply. A command without
// a transfer waits for its reply forever, logging each minute: a save may run for hours.
int SendCommand(FtpConnection* control, const char* command, std::span<char> reply = {}, const Transfer& transfer = {});

// Closes and frees a connection, a control connection together with its data connection. Returns the result of closing
// the control socket; -1 for a data connection or none.
int CloseConnection(std::unique_ptr<FtpConnection> connection);
