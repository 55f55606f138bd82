#include "socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "name_lookup.h"
#include "tcp.h"

namespace {

constexpr double PollSeconds = PollMilliseconds / 1000.0;

bool IsControlRecord(const FtpConnection* connection) {
    return connection != nullptr && connection->tag == ControlTag;
}

bool HasDataRecord(const FtpConnection* control) {
    return control->data != nullptr && control->data->tag == DataTag;
}

const char* Host(const FtpConnection& connection) {
    return connection.peer.text.data();
}

int Port(const FtpConnection& connection) {
    return ntohs(connection.peer.address.sin_port);
}

// Offers the session its way out of a connection that has failed.
void CallBroken(FtpConnection& control) {
    if (control.on_broken)
        control.on_broken();
}

void FailControl(FtpConnection& control) {
    control.socket.Reset();
    CallBroken(control);
}

// Opening a session's connections

// Returns whether the look-up went well, and logs what did not.
bool IsFound(const std::string& failure) {
    if (!failure.empty())
        LogFailure("%s\n", failure.c_str());
    return failure.empty();
}

std::unique_ptr<FtpConnection> NewConnection(const TransportOptions& options,
                                             SourceLocation place = SourceLocation::Here()) {
    auto connection = NewRecord<FtpConnection>();
    if (connection != nullptr)
        connection->options = options;
    else
        LogFailureAt(place, "malloc(%d) failed\n", static_cast<int>(sizeof(FtpConnection)));
    return connection;
}

std::unique_ptr<FtpConnection> NewDataRecord(const TransportOptions& options) {
    auto data = NewConnection(options);
    if (data == nullptr)
        return nullptr;
    if (!IsFound(LookUpProtocol("tcp", data->protocol)))
        return nullptr;
    data->tag = DataTag;
    return data;
}

} // namespace

std::unique_ptr<FtpConnection> OpenConnections(const char* host, const char* service, const TransportOptions& options,
                                               BrokenHandler on_broken) {
    auto control = NewConnection(options);
    if (control == nullptr)
        return nullptr;
    control->on_broken = std::move(on_broken);
    if (!IsFound(LookUpServer(host, service, control->peer.address, control->protocol)))
        return nullptr;
    control->tag = ControlTag;
    if (ConnectControl(control.get()) != 0) {
        LogFailure("couldn't open control connection\n");
        CloseConnection(std::move(control));
        return nullptr;
    }
    control->data = NewDataRecord(control->options);
    if (control->data == nullptr) {
        LogFailure("couldn't create data port\n");
        CloseConnection(std::move(control));
        return nullptr;
    }
    return control;
}

namespace {

void FormatPeer(FtpConnection& control) {
    ::inet_ntop(AF_INET, &control.peer.address.sin_addr, control.peer.text.data(), INET_ADDRSTRLEN);
}

// Connects the socket and notes the peer. Returns false after logging the reason.
bool ConnectToServer(FtpConnection& control) {
    FormatPeer(control);
    control.socket = OpenSocket(control.protocol);
    if (!control.socket.IsOpen()) {
        LogFailure("socket(): %s\n", std::strerror(errno));
        return false;
    }
    if (ConnectSocket(control.socket, control.peer.address) != 0) {
        LogFailure("connect(, %s:%d): %s\n", Host(control), Port(control), std::strerror(errno));
        return false;
    }
    socklen_t length = sizeof control.peer.address;
    if (::getpeername(control.socket.Get(), reinterpret_cast<sockaddr*>(&control.peer.address), &length) != 0) {
        LogFailure("getpeername(): %s\n", std::strerror(errno));
        return false;
    }
    FormatPeer(control);
    KeepUrgentDataInline(control.socket);
    return true;
}

} // namespace

int ConnectControl(FtpConnection* control) {
    if (!IsControlRecord(control))
        return -1;
    if (control->socket.IsOpen()) {
        LogFailure("reopening open control connection\n");
        return -1;
    }
    if (!ConnectToServer(*control)) {
        control->socket.Reset();
        return -1;
    }
    if (control->options.verbosity >= 4)
        LogMessage("%s: FTP control connected to %s:%d\n", ProgramName, Host(*control), Port(*control));
    control->replies.Clear();
    control->reply_bytes = 0;
    std::array<char, ReplyCapacity> line;
    do {
        if (ReadReply(control, line) != 0) {
            control->socket.Reset();
            return -1;
        }
    } while (control->replies.Lines() > 0);
    return 0;
}

// The reply reader

namespace {

int FailReplies(FtpConnection& control) {
    control.replies.Clear();
    FailControl(control);
    return -1;
}

// Reads once; waits first if nothing has arrived.
int FillReplyBuffer(FtpConnection& control) {
    const std::span<char> room = control.replies.Room();
    ssize_t count = ::recv(control.socket.Get(), room.data(), room.size(), MSG_DONTWAIT);
    if (count < 0 && WouldBlock()) {
        const int events = PollSocket(control.socket, POLLIN | POLLPRI);
        if (events < 0) {
            LogFailure("poll(): %s\n", std::strerror(errno));
            return FailReplies(control);
        }
        if (events == 0) {
            LogFailure("poll(): timedout on control read after %.2fs\n", PollSeconds);
            return -1;
        }
        count = ::read(control.socket.Get(), room.data(), room.size());
    }
    if (count < 0) {
        LogFailure("read(%s:%d): %s\n", Host(control), Port(control), std::strerror(errno));
        return FailReplies(control);
    }
    if (count == 0) {
        LogFailure("%s:%d: control connection closed\n", Host(control), Port(control));
        return FailReplies(control);
    }
    if (control.options.verbosity >= 4)
        LogMessage("%.*s", static_cast<int>(count), room.data());
    control.replies.Append(static_cast<std::size_t>(count));
    control.reply_bytes += count;
    if (control.reply_bytes > LongestReplies) {
        LogFailure("more than %d bytes of replies to one command\n", LongestReplies);
        return FailReplies(control);
    }
    return 0;
}

} // namespace

int ReadReply(FtpConnection* control, std::span<char, ReplyCapacity> line) {
    if (!IsControlRecord(control))
        return -1;
    ReplyBuffer& replies = control->replies;
    while (replies.Lines() < 1) {
        if (replies.Room().empty() || FillReplyBuffer(*control) != 0)
            return -1;
        replies.DropIntermediateLines();
    }
    const std::string_view first = replies.FirstLine();
    *std::copy(first.begin(), first.end(), line.begin()) = '\0';
    replies.DropFirstLine();
    return line[0] == '2' || line[0] == '3' ? 0 : 1;
}

// The data connection

namespace {

int ReportPoll(SourceLocation place = SourceLocation::Here()) {
    LogFailureAt(place, "poll(): %s\n", std::strerror(errno));
    return -1;
}

// Fills the transfer buffer from the data socket: to its end, to the end of the data or to a minute's silence.
// `timeouts` counts silent minutes in a row and becomes 0 with every read; `at_end` is set at the end of the data.
// Returns the bytes filled, or -1. Data is moved without asking first; poll() is needed only when there is nothing to
// move.
int FillTransferBuffer(FtpConnection& data, int& timeouts, bool& at_end) {
    std::size_t filled = 0;
    while (filled < TransferCapacity) {
        char* const position = data.transfer_buffer.Data() + filled;
        const ssize_t count = ::recv(data.socket.Get(), position, TransferCapacity - filled, MSG_DONTWAIT);
        if (count > 0) {
            if (data.options.verbosity >= 5)
                LogFailure("read(%s:%d) %d bytes\n", Host(data), Port(data), static_cast<int>(count));
            timeouts = 0;
            filled += static_cast<std::size_t>(count);
        } else if (count == 0) {
            timeouts = 0;
            at_end = true;
            break;
        } else if (WouldBlock()) {
            const int events = PollSocket(data.socket, POLLIN | POLLPRI);
            if (events < 0)
                return ReportPoll();
            if (events == 0) {
                ++timeouts;
                LogFailure("poll(): timedout on data read after %.2fs (%d times)\n", PollSeconds, timeouts);
                break;
            }
        } else {
            LogFailure("read(%s:%d): %s\n", Host(data), Port(data), std::strerror(errno));
            return -1;
        }
    }
    return static_cast<int>(filled);
}

// Receives to the end of the data. The socket stays open after a failure.
int ReceiveData(FtpConnection& data, const Transfer& transfer) {
    if (data.options.verbosity >= 4)
        LogMessage("reading from %s:%d\n", Host(data), Port(data));
    int timeouts = 0;
    for (bool at_end = false; !at_end;) {
        int count = FillTransferBuffer(data, timeouts, at_end);
        if (count < 0)
            return -1;
        if (count > 0) {
            if (data.options.verbosity >= 5)
                LogFailure("sending %d bytes to callback\n", count);
            if (transfer.receive(transfer.argument, data.transfer_buffer.Data(), &count) != 0)
                return -1;
        } else if (timeouts >= data.options.timeout) {
            LogFailure("Timeout limit reached (%d times).\n", timeouts);
            return -1;
        } else if (!at_end && data.options.verbosity >= 4) {
            LogFailure("No data read for callback\n");
        }
    }
    return 0;
}

int AwaitRoom(const FtpConnection& data) {
    const int events = PollSocket(data.socket, POLLOUT);
    if (events < 0)
        return ReportPoll();
    if (events > 0)
        return 0;
    LogFailure("poll(): timedout on data write after %.2fs\n", PollSeconds);
    return -1;
}

int ReportWrite(const FtpConnection& data, SourceLocation place = SourceLocation::Here()) {
    LogFailureAt(place, "write(%s:%d): %s\n", Host(data), Port(data), std::strerror(errno));
    return -1;
}

// Writes all of `bytes`. Never blocks in the write itself: a peer that stops reading must end in the timeout. With
// TCP_NODELAY alone the end of every block would be sent in a small segment of its own; MSG_MORE joins it to the next
// block, and closing the socket sends the last one.
int WriteData(const FtpConnection& data, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count =
            ::send(data.socket.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL | MSG_MORE);
        if (count < 0 && WouldBlock()) {
            if (AwaitRoom(data) != 0)
                return -1;
            continue;
        }
        if (count <= 0)
            return count < 0 ? ReportWrite(data) : -1;
        if (data.options.verbosity >= 5)
            LogFailure("write(%s:%d) %d bytes\n", Host(data), Port(data), static_cast<int>(count));
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

// Forwards what the transfer can. Like WriteData() it waits for nothing but room, and for that with a timeout.
int ForwardData(const FtpConnection& data, const Transfer& transfer) {
    ssize_t count;
    while ((count = transfer.forward(transfer.argument, data.socket.Get())) != 0) {
        if (count < 0 && !WouldBlock())
            return ReportWrite(data);
        if (count < 0 && AwaitRoom(data) != 0)
            return -1;
    }
    return 0;
}

// Whether data can be forwarded. A trace of every block needs every block supplied.
bool MayForward(const FtpConnection& data, const Transfer& transfer) {
    return transfer.forward != nullptr && data.options.verbosity < 5 &&
           ::fcntl(data.socket.Get(), F_SETFL, O_NONBLOCK) == 0;
}

// Sends what the source supplies and forwards. The socket stays open after a failure.
int SendData(FtpConnection& data, const Transfer& transfer) {
    if (data.options.verbosity >= 4)
        LogMessage("writing to %s:%d\n", Host(data), Port(data));
    const bool forwards = MayForward(data, transfer);
    for (;;) {
        std::string_view bytes;
        if (transfer.send(transfer.argument, {data.transfer_buffer.Data(), TransferCapacity}, bytes) != 0)
            return -1;
        if (bytes.empty())
            return 0;
        if (data.options.verbosity >= 5)
            LogFailure("callback gave us %d bytes\n", static_cast<int>(bytes.size()));
        if (WriteData(data, bytes) != 0 || (forwards && ForwardData(data, transfer) != 0)) {
            LogFailure("we didn't send everything\n");
            return -1;
        }
    }
}

// Runs the whole transfer over an open socket. Closing it tells a receiving server that the file has ended.
int RunTransfer(FtpConnection& data, const Transfer& transfer) {
    const int result = transfer.receive != nullptr ? ReceiveData(data, transfer) : SendData(data, transfer);
    data.socket.Reset();
    return result;
}

int ConnectData(FtpConnection& data) {
    Descriptor socket = OpenSocket(data.protocol);
    if (!socket.IsOpen()) {
        LogFailure("socket(): %s\n", std::strerror(errno));
        return -1;
    }
    if (SwitchOn(socket, SOL_SOCKET, SO_REUSEADDR) != 0) {
        LogFailure("setsockopt(, SOL_SOCKET, SO_REUSEADDR): %s\n", std::strerror(errno));
        return -1;
    }
    static_assert(IP_PMTUDISC_WANT == 1);
    if (SwitchOn(socket, SOL_IP, IP_MTU_DISCOVER) != 0)
        LogFailure("setsockopt(, SOL_IP, IP_MTU_DISCOVER, %X): %s\n", 1U, std::strerror(errno));
    if (SwitchOn(socket, SOL_TCP, TCP_NODELAY) != 0)
        LogFailure("setsockopt(, SOL_TCP, TCP_NODELAY, %X): %s\n", 1U, std::strerror(errno));
    KeepUrgentDataInline(socket);
    if (ConnectSocket(socket, data.peer.address) != 0) {
        LogFailure("connect(, %s:%d): %s\n", Host(data), Port(data), std::strerror(errno));
        return -1;
    }
    data.socket = std::move(socket);
    return 0;
}

int OpenDataConnection(FtpConnection& control, const char* reply) {
    if (!HasDataRecord(&control))
        return -1;
    control.data->socket.Reset();
    const std::string fault = ParsePassiveReply(reply, control.data->peer);
    if (!fault.empty()) {
        LogFailure("%s\n", fault.c_str());
        return -1;
    }
    return ConnectData(*control.data);
}

// Sending a command

constexpr std::size_t CommandCapacity = 4096;

// One command under way.
struct Exchange {
    FtpConnection& control;
    const Transfer& transfer;
    std::span<char> reply;                     // the caller's, may be empty
    std::array<char, ReplyCapacity> last{'1'}; // the last reply line; '1' in front: the final reply is to come
    int result = 0;
    std::int64_t waited = 0; // milliseconds without any event

    bool HasTransfer() const { return transfer.receive != nullptr || transfer.send != nullptr; }
    bool DataOpen() const { return HasTransfer() && control.data->socket.IsOpen(); }
    bool AwaitsReply() const { return last[0] == '1'; }
};

// Closes both connections. Returns -1, which ends the exchange.
int AbandonConnections(Exchange& exchange) {
    if (exchange.control.data != nullptr)
        exchange.control.data->socket.Reset();
    FailControl(exchange.control);
    return -1;
}

// Prepares the transfer's data connection and buffer.
int PrepareTransfer(FtpConnection& control) {
    if (!HasDataRecord(&control))
        return -1;
    FtpConnection& data = *control.data;
    if (!data.socket.IsOpen() && SendCommand(&control, "PASV") != 0) {
        LogFailure("PASV command failed\n");
        return -1;
    }
    if (!data.transfer_buffer && !data.transfer_buffer.Map(TransferCapacity)) {
        LogFailure("mmap(, %u): %s\n", static_cast<unsigned>(TransferCapacity), std::strerror(errno));
        return -1;
    }
    return 0;
}

int WriteCommand(FtpConnection& control, const char* command) {
    if (std::strpbrk(command, "\r\n") != nullptr) { // what follows would be a command of its own
        LogFailure("command holds a line end\n");
        return -1;
    }
    std::array<char, CommandCapacity> line{};
    // The limit of 4095 is tested against the whole line, while one character less is kept: a line of exactly 4095 is
    // sent with a zero byte instead of its LF.
    const int length = std::snprintf(line.data(), line.size() - 1, "%s\r\n", command);
    if (length < 0 || static_cast<std::size_t>(length) > line.size() - 1) {
        LogFailure("command too long\n");
        return -1;
    }
    control.reply_bytes = 0;
    std::string_view rest(line.data(), static_cast<std::size_t>(length));
    while (!rest.empty()) {
        const ssize_t count = ::send(control.socket.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0) {
            LogFailure("write(%s:%d,, %d): %s\n", Host(control), Port(control), static_cast<int>(rest.size()),
                       std::strerror(errno));
            FailControl(control);
            return -1;
        }
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
    if (control.options.verbosity >= 3)
        LogMessage("%s: sent command \"%s\"\n", ProgramName, MaskControls(command).c_str());
    return 0;
}

// What one pass waits for: the control socket until the final reply, which must be open then, and the data socket while
// it is open.
PollSet BuildPollSet(const Exchange& exchange) {
    const bool verbose = exchange.control.options.verbosity >= 4;
    PollSet set;
    if (exchange.AwaitsReply()) {
        set.control = set.Add(exchange.control.socket, POLLIN | POLLPRI);
        if (verbose)
            LogFailure("'%c': looking for completion reply\n", exchange.last[0]);
    }
    if (!exchange.DataOpen())
        return set;
    const bool receiving = exchange.transfer.receive != nullptr;
    set.data = set.Add(exchange.control.data->socket, receiving ? POLLIN | POLLPRI : POLLOUT);
    if (verbose && receiving)
        LogFailure("looking for more data to read\n");
    if (verbose && !receiving)
        LogFailure("looking for more data to write\n");
    return set;
}

void CopyReply(std::span<char> reply, const char* line) {
    if (!reply.empty())
        strncpy(reply.data(), line, reply.size());
}

// Reads reply lines until none is left in the buffer; the last one counts.
void ConsumeReplies(Exchange& exchange) {
    do {
        const int kind = ReadReply(&exchange.control, exchange.last);
        if (kind < 0) {
            exchange.last[0] = '5';
            exchange.result = -1;
            return;
        }
        if (kind == 1) {
            CopyReply(exchange.reply, exchange.last.data());
            if (exchange.last[0] != '1')
                exchange.result = 1;
        }
    } while (exchange.control.replies.Lines() > 0);
}

// A minute without an event. Returns -1 when a transfer has been silent for too long.
int CountSilence(Exchange& exchange) {
    exchange.waited += PollMilliseconds;
    LogFailure("poll(): timedout after %.2fs (%.2fs)\n", PollSeconds, static_cast<double>(exchange.waited) / 1000.0);
    const bool exhausted = exchange.waited / PollMilliseconds >= exchange.control.options.timeout;
    return exchange.HasTransfer() && exhausted ? AbandonConnections(exchange) : 0;
}

// Handles the events of one pass. Returns -1 when the exchange is over.
int HandleEvents(Exchange& exchange, const PollSet& set) {
    const int on_control = set.Events(set.control);
    const int on_data = set.Events(set.data);
    if ((on_control & (POLLIN | POLLPRI)) != 0)
        ConsumeReplies(exchange);
    if (on_data != 0 && RunTransfer(*exchange.control.data, exchange.transfer) != 0 && exchange.result == 0)
        exchange.result = -1;
    if (((on_control | on_data) & ~(POLLIN | POLLPRI | POLLOUT)) != 0) {
        LogFailure("poll(): revents: 0x%X, 0x%X\n", static_cast<unsigned>(set.Events(0)),
                   static_cast<unsigned>(set.Events(1)));
        return AbandonConnections(exchange);
    }
    exchange.waited = 0;
    return 0;
}

// Waits for the final reply and the end of the data connection. Returns the result of SendCommand.
int AwaitCompletion(Exchange& exchange) {
    do {
        if (exchange.AwaitsReply() && !exchange.control.socket.IsOpen()) {
            LogFailure("control connection gone\n");
            CallBroken(exchange.control);
            return -1;
        }
        PollSet set = BuildPollSet(exchange);
        const int events = PollSockets({set.entries.data(), set.count});
        if (events < 0)
            return ReportPoll();
        if ((events == 0 ? CountSilence(exchange) : HandleEvents(exchange, set)) != 0)
            return -1;
    } while (exchange.AwaitsReply() || exchange.DataOpen());
    return exchange.result;
}

} // namespace

int SendCommand(FtpConnection* control, const char* command, std::span<char> reply, const Transfer& transfer) {
    if (!IsControlRecord(control))
        return -1;
    Exchange exchange{*control, transfer, reply};
    if (exchange.HasTransfer() && PrepareTransfer(*control) != 0)
        return -1;
    if (WriteCommand(*control, command) != 0)
        return -1;
    const int result = AwaitCompletion(exchange);
    if (result != 0)
        return result;
    if (EqualsIgnoringCase(command, "PASV") && OpenDataConnection(*control, exchange.last.data()) != 0) {
        LogFailure("can't connect data port\n");
        return -1;
    }
    if (EqualsIgnoringCase(command, "SYST"))
        CopyReply(reply, exchange.last.data());
    return 0;
}

// Closing

int CloseConnection(std::unique_ptr<FtpConnection> connection) {
    if (!IsControlRecord(connection.get()))
        return -1; // a data record's socket goes with the record
    CloseConnection(std::move(connection->data));
    return connection->socket.Close();
}
