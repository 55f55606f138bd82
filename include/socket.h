// FTP transport: the control connection of one session with its reply reader, command sending, and the
// passive data connection that a transfer moves its bytes over. Blocking, one thread per session: a
// connection is only ever touched by the thread that owns its session.
//
// A connection failure closes the control socket and calls AbortToCheckpoint, which either leaves by an
// exception to the protected operation that is under way (see ftp.h) or returns -1; each procedure below then
// gives -1.

#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>

#include <netinet/in.h>

#include "support.h"

struct FtpSession;

// The first bytes of a record of the transport and session layers, compared before every use.
using RecordTag = std::array<char, 4>;
constexpr RecordTag ControlTag{'f', 't', 'p', 'c'};
constexpr RecordTag DataTag{'f', 't', 'p', 'd'};

constexpr std::size_t ReplyCapacity = 4096;     // bytes of replies held, and of one reply line with its terminator
constexpr std::size_t TransferCapacity = 65536; // bytes handed to a DataCallback at once
constexpr int PollMilliseconds = 60000;         // every poll() of a socket; longer waits repeat it

// One TCP connection. The data variant leaves the reply fields alone; the control variant the transfer
// buffer.
struct FtpConnection {
    RecordTag tag{}; // set when the record is ready for use
    int protocol = 0;
    Descriptor socket; // open only while connected
    // Control: the server as connected. Data: the passive address of the last 227 reply, and its text from
    // there.
    sockaddr_in address{};
    std::array<char, INET_ADDRSTRLEN + 1> address_text{};

    // Control variant
    FtpSession* owner = nullptr;
    std::unique_ptr<FtpConnection> data; // made when the session is opened
    std::size_t reply_held = 0;          // bytes of reply_buffer read and not yet consumed
    int lines_held = 0;                  // CR LF ends counted in them
    std::array<char, ReplyCapacity> reply_buffer{};

    // Data variant
    Mapping transfer_buffer; // TransferCapacity bytes, made by the first transfer and kept
};

// Moves the data of a transfer. Receiving (LIST, RETR): `count` bytes (1 to TransferCapacity) stand in
// `buffer`. Sending (STOR): `buffer` has room for `count` bytes; the callback sets `count` to what it put
// there, 0 or less at the end of the data. Gives 0 to go on, anything else to abort the transfer.
using DataCallback = int (*)(void* argument, char* buffer, int* count);

// What a command transfers: nothing, or one direction.
struct Transfer {
    DataCallback receive = nullptr;
    DataCallback send = nullptr;
    void* argument = nullptr; // handed to the callback
};

// Resolves the host, connects to its port for `service` ("ftp"; IPv4 only), reads the greeting and makes the
// data record. Gives nothing after any failure, which is reported.
std::unique_ptr<FtpConnection> OpenConnections(FtpSession* session, const char* host, const char* service);

// Connects a closed control connection and consumes the greeting. Gives 0, or -1 with the socket closed.
int ConnectControl(FtpConnection* control);

// Gives the next reply line, without its line end, in `line`: 0 when it is positive (2xx, 3xx), 1 when it is
// not (1xx included), -1 when there is none. Intermediate lines of a reply are passed over when they came
// with a read of this call. A minute's silence gives -1 and leaves the connection open.
int ReadReply(FtpConnection* control, std::span<char, ReplyCapacity> line);

// Sends one command and waits for its final reply, moving the transfer's data meanwhile. The command comes
// without its line end; 4092 characters at most go out whole.
//
//    0: the final reply was positive and a transfer ended normally;
//    1: the final reply was negative, whatever became of the data before;
//   -1: anything else that failed: the record, the command's length, either connection, the callback.
//
// `reply`, when given, receives every reply line that is not positive (as strncpy does: cut, and then without
// a terminator), so that after a 1 it holds the refusal; after SYST it receives the positive reply. A command
// without a transfer waits for its reply for ever, reporting each minute: a save may run for hours.
int SendCommand(FtpConnection* control, const char* command, std::span<char> reply = {}, const Transfer& transfer = {});

// Closes and frees a connection, a control connection together with its data connection. Gives the result of
// closing the control socket; -1 for a data connection or none.
int CloseConnection(std::unique_ptr<FtpConnection> connection);

// Called when the control connection has failed and is closed. Defined by the session layer: leaves for the
// session's checkpoint by an exception, or, when none is armed, reports that and gives -1.
int AbortToCheckpoint(FtpSession* session);
