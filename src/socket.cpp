#include "socket.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include "settings.h"

namespace {

constexpr double PollSeconds = PollMilliseconds / 1000.0;

bool IsControl(const FtpConnection* connection) {
    return connection != nullptr && connection->tag == ControlTag;
}

bool HasDataRecord(const FtpConnection* control) {
    return control->data != nullptr && control->data->tag == DataTag;
}

int Port(const FtpConnection& connection) {
    return ntohs(connection.address.sin_port);
}

// poll() for PollMilliseconds, taken up again after a signal.
int Poll(std::span<pollfd> set) {
    int events;
    do {
        events = ::poll(set.data(), set.size(), PollMilliseconds);
    } while (events < 0 && errno == EINTR);
    return events;
}

int PollOne(const Descriptor& socket, short events) {
    pollfd entry{socket.Get(), events, 0};
    return Poll({&entry, 1});
}

// An urgent byte would wake every poll() without ever being read; in line it is data like any other.
void KeepUrgentDataInline(const Descriptor& socket) {
    const int on = 1;
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
}

int ConnectTo(const Descriptor& socket, const sockaddr_in& address) {
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// Closes a control connection that failed and offers the session its way out.
int FailControl(FtpConnection& control) {
    control.socket.Reset();
    return AbortToCheckpoint(control.owner);
}

// Opening a session's connections

// The name services answer from static storage: one look-up at a time, results copied before the next.
std::mutex LookupLock;

// Requires: LookupLock is held.
bool ResolveHost(FtpConnection& control, const char* host) {
    const hostent* entry = ::gethostbyname(host);
    const int error = h_errno;
    ::endhostent();
    if (entry == nullptr) {
        LogMessageTo(stderr, "%sgethostbyname(%s): %s\n", FailureHead().c_str(), host, hstrerror(error));
        return false;
    }
    const int address_length = sizeof control.address.sin_addr;
    if (entry->h_length != address_length) {
        LogMessageTo(stderr, "%sgethostbyname(%s) address length (%d) != %d\n", FailureHead().c_str(), host,
                     entry->h_length, address_length);
        return false;
    }
    std::memcpy(&control.address.sin_addr, entry->h_addr_list[0], sizeof control.address.sin_addr);
    return true;
}

// Gives the protocol's number, or -1 after a message. Requires: LookupLock is held.
int LookUpProtocol(const char* name) {
    const protoent* entry = ::getprotobyname(name);
    const int number = entry != nullptr ? entry->p_proto : -1;
    if (entry == nullptr)
        LogMessageTo(stderr, "%sgetprotobyname(%s)\n", FailureHead().c_str(), name);
    ::endprotoent();
    return number;
}

// Requires: LookupLock is held.
bool ResolveService(FtpConnection& control, const char* service) {
    const servent* entry = ::getservbyname(service, "tcp");
    if (entry == nullptr) {
        LogMessageTo(stderr, "%sgetservbyname(%s)\n", FailureHead().c_str(), service);
        return false;
    }
    control.address.sin_port = static_cast<in_port_t>(entry->s_port);
    control.protocol = LookUpProtocol(entry->s_proto);
    ::endservent();
    return control.protocol >= 0;
}

std::unique_ptr<FtpConnection> NewConnection(SourcePlace place = SourcePlace::Here()) {
    auto connection = NewRecord<FtpConnection>();
    if (connection == nullptr)
        LogMessageTo(stderr, "%smalloc(%d) failed\n", FailureHead(place).c_str(),
                     static_cast<int>(sizeof(FtpConnection)));
    return connection;
}

std::unique_ptr<FtpConnection> NewDataRecord() {
    auto data = NewConnection();
    if (data == nullptr)
        return nullptr;
    const std::lock_guard<std::mutex> lock(LookupLock);
    data->protocol = LookUpProtocol("tcp");
    if (data->protocol < 0)
        return nullptr;
    data->tag = DataTag;
    return data;
}

} // namespace

std::unique_ptr<FtpConnection> OpenConnections(FtpSession* session, const char* host, const char* service) {
    auto control = NewConnection();
    if (control == nullptr)
        return nullptr;
    control->owner = session;
    control->address.sin_family = AF_INET;
    {
        const std::lock_guard<std::mutex> lock(LookupLock);
        if (!ResolveHost(*control, host) || !ResolveService(*control, service))
            return nullptr;
    }
    control->tag = ControlTag;
    if (ConnectControl(control.get()) != 0) {
        LogMessageTo(stderr, "%scouldn't open control connection\n", FailureHead().c_str());
        CloseConnection(std::move(control));
        return nullptr;
    }
    control->data = NewDataRecord();
    if (control->data == nullptr) {
        LogMessageTo(stderr, "%scouldn't create data port\n", FailureHead().c_str());
        CloseConnection(std::move(control));
        return nullptr;
    }
    return control;
}

namespace {

// Connects the socket and notes the peer; false after a message.
bool ConnectSocket(FtpConnection& control) {
    std::array<char, INET_ADDRSTRLEN + 1>& text = control.address_text;
    ::inet_ntop(AF_INET, &control.address.sin_addr, text.data(), INET_ADDRSTRLEN);
    control.socket.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, control.protocol));
    if (!control.socket.IsOpen()) {
        LogMessageTo(stderr, "%ssocket(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return false;
    }
    if (ConnectTo(control.socket, control.address) != 0) {
        LogMessageTo(stderr, "%sconnect(, %s:%d): %s\n", FailureHead().c_str(), text.data(), Port(control),
                     std::strerror(errno));
        return false;
    }
    socklen_t length = sizeof control.address;
    if (::getpeername(control.socket.Get(), reinterpret_cast<sockaddr*>(&control.address), &length) != 0) {
        LogMessageTo(stderr, "%sgetpeername(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return false;
    }
    ::inet_ntop(AF_INET, &control.address.sin_addr, text.data(), INET_ADDRSTRLEN);
    KeepUrgentDataInline(control.socket);
    return true;
}

} // namespace

int ConnectControl(FtpConnection* control) {
    if (!IsControl(control))
        return -1;
    if (control->socket.IsOpen()) {
        LogMessageTo(stderr, "%sreopening open control connection\n", FailureHead().c_str());
        return -1;
    }
    if (!ConnectSocket(*control)) {
        control->socket.Reset();
        return -1;
    }
    if (RunSettings.verbosity >= 4)
        LogMessage("%s: FTP control connected to %s:%d\n", ProgramName, control->address_text.data(), Port(*control));
    control->reply_held = 0;
    control->lines_held = 0;
    std::array<char, ReplyCapacity> line;
    do {
        if (ReadReply(control, line) != 0) {
            control->socket.Reset();
            return -1;
        }
    } while (control->lines_held > 0);
    return 0;
}

// The reply reader

namespace {

constexpr std::string_view LineEnd = "\r\n";

// The length of the first line held, without its end; npos when none is complete.
std::size_t FirstLineLength(const FtpConnection& control) {
    return std::string_view(control.reply_buffer.data(), control.reply_held).find(LineEnd);
}

// Requires: the buffer begins with a line of `length` bytes and its end.
void DropFirstLine(FtpConnection& control, std::size_t length) {
    const std::size_t dropped = length + LineEnd.size();
    std::copy(control.reply_buffer.data() + dropped, control.reply_buffer.data() + control.reply_held,
              control.reply_buffer.data());
    control.reply_held -= dropped;
    --control.lines_held;
}

bool StartsWithIntermediateLine(const FtpConnection& control) {
    return control.reply_held >= 4 && control.reply_buffer[3] == '-';
}

int FailReplies(FtpConnection& control) {
    control.socket.Reset();
    control.reply_held = 0;
    control.lines_held = 0;
    AbortToCheckpoint(control.owner);
    return -1;
}

// One wait and one read. The line ends are counted within the bytes of this read alone, and only in reads of
// two bytes and more: a CR LF that the network has split is not an end, the text runs on to the next one.
int FillReplyBuffer(FtpConnection& control) {
    const int events = PollOne(control.socket, POLLIN | POLLPRI);
    if (events < 0) {
        LogMessageTo(stderr, "%spoll(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return FailReplies(control);
    }
    if (events == 0) {
        LogMessageTo(stderr, "%spoll(): timedout on control read after %.2fs\n", FailureHead().c_str(), PollSeconds);
        return -1;
    }
    char* const position = control.reply_buffer.data() + control.reply_held;
    const ssize_t count = ::read(control.socket.Get(), position, ReplyCapacity - control.reply_held);
    if (count < 0) {
        LogMessageTo(stderr, "%sread(%s:%d): %s\n", FailureHead().c_str(), control.address_text.data(), Port(control),
                     std::strerror(errno));
        return FailReplies(control);
    }
    if (count == 0) {
        LogMessageTo(stderr, "%s%s:%d: control connection closed\n", FailureHead().c_str(), control.address_text.data(),
                     Port(control));
        return FailReplies(control);
    }
    const std::string_view chunk(position, static_cast<std::size_t>(count));
    if (RunSettings.verbosity >= 4)
        LogMessage("%.*s", static_cast<int>(chunk.size()), chunk.data());
    control.reply_held += chunk.size();
    for (std::size_t end = chunk.find(LineEnd); end != chunk.npos; end = chunk.find(LineEnd, end + LineEnd.size()))
        ++control.lines_held;
    return 0;
}

int ReportBufferedReply(SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%sbuffered reply screw up\n", FailureHead(place).c_str());
    return -1;
}

// Passes over "nnn-text" lines until a final line begins the buffer or no line is left.
int DropIntermediateLines(FtpConnection& control) {
    while (control.lines_held > 0 && StartsWithIntermediateLine(control)) {
        const std::size_t length = FirstLineLength(control);
        if (length == std::string_view::npos)
            return ReportBufferedReply();
        DropFirstLine(control, length);
    }
    return 0;
}

} // namespace

int ReadReply(FtpConnection* control, std::span<char, ReplyCapacity> line) {
    if (!IsControl(control))
        return -1;
    while (control->lines_held < 1) {
        if (control->reply_held >= ReplyCapacity)
            return -1;
        if (FillReplyBuffer(*control) != 0 || DropIntermediateLines(*control) != 0)
            return -1;
    }
    const std::size_t length = FirstLineLength(*control);
    if (length == std::string_view::npos)
        return ReportBufferedReply();
    if (length >= line.size()) {
        LogMessageTo(stderr, "%scommand reply too long\n", FailureHead().c_str());
        return -1;
    }
    *std::copy_n(control->reply_buffer.data(), length, line.data()) = '\0';
    DropFirstLine(*control, length);
    return line[0] == '2' || line[0] == '3' ? 0 : 1;
}

// The data connection

namespace {

int ReportPoll(SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%spoll(): %s\n", FailureHead(place).c_str(), std::strerror(errno));
    return -1;
}

// Data is moved without asking first; poll() comes in only when there is nothing to move.
bool WouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// Fills the transfer buffer from the data socket: to its end, to the end of the data or to a minute's
// silence. `timeouts` counts silent minutes in a row and becomes 0 with every read. Gives the bytes filled,
// or -1.
int FillTransferBuffer(FtpConnection& data, int& timeouts) {
    std::size_t filled = 0;
    while (filled < TransferCapacity) {
        char* const position = data.transfer_buffer.Data() + filled;
        const ssize_t count = ::recv(data.socket.Get(), position, TransferCapacity - filled, MSG_DONTWAIT);
        if (count > 0) {
            if (RunSettings.verbosity >= 5)
                LogMessageTo(stderr, "%sread(%s:%d) %d bytes\n", FailureHead().c_str(), data.address_text.data(),
                             Port(data), static_cast<int>(count));
            timeouts = 0;
            filled += static_cast<std::size_t>(count);
        } else if (count == 0) {
            timeouts = 0;
            break;
        } else if (WouldBlock()) {
            const int events = PollOne(data.socket, POLLIN | POLLPRI);
            if (events < 0)
                return ReportPoll();
            if (events == 0) {
                ++timeouts;
                LogMessageTo(stderr, "%spoll(): timedout on data read after %.2fs (%d times)\n", FailureHead().c_str(),
                             PollSeconds, timeouts);
                break;
            }
        } else {
            LogMessageTo(stderr, "%sread(%s:%d): %s\n", FailureHead().c_str(), data.address_text.data(), Port(data),
                         std::strerror(errno));
            return -1;
        }
    }
    return static_cast<int>(filled);
}

// Receives to the end of the data. The socket stays open after a failure.
int ReceiveData(FtpConnection& data, const Transfer& transfer) {
    if (RunSettings.verbosity >= 4)
        LogMessage("reading from %s:%d\n", data.address_text.data(), Port(data));
    int timeouts = 0;
    for (;;) {
        int count = FillTransferBuffer(data, timeouts);
        if (count < 0)
            return -1;
        if (count > 0) {
            if (RunSettings.verbosity >= 5)
                LogMessageTo(stderr, "%ssending %d bytes to callback\n", FailureHead().c_str(), count);
            if (transfer.receive(transfer.argument, data.transfer_buffer.Data(), &count) != 0)
                return -1;
        } else if (timeouts >= RunSettings.timeout) {
            LogMessageTo(stderr, "%sTimeout limit reached (%d times).\n", FailureHead().c_str(), timeouts);
            return -1;
        } else if (timeouts == 0) {
            return 0;
        } else if (RunSettings.verbosity >= 4) {
            LogMessageTo(stderr, "%sNo data read for callback\n", FailureHead().c_str());
        }
    }
}

int AwaitRoom(const FtpConnection& data) {
    const int events = PollOne(data.socket, POLLOUT);
    if (events < 0)
        return ReportPoll();
    if (events > 0)
        return 0;
    LogMessageTo(stderr, "%spoll(): timedout on data write after %.2fs\n", FailureHead().c_str(), PollSeconds);
    return -1;
}

// Writes all of `bytes`. Never blocks in the write itself: a peer that stops reading must end in the time-out. With
// TCP_NODELAY alone the end of every block would leave in a small segment of its own; MSG_MORE joins it to the next
// block, and the closing of the socket sends the last.
int WriteData(const FtpConnection& data, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count =
            ::send(data.socket.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL | MSG_MORE);
        if (count < 0 && WouldBlock()) {
            if (AwaitRoom(data) != 0)
                return -1;
            continue;
        }
        if (count < 0)
            LogMessageTo(stderr, "%swrite(%s:%d): %s\n", FailureHead().c_str(), data.address_text.data(), Port(data),
                         std::strerror(errno));
        if (count <= 0)
            return -1;
        if (RunSettings.verbosity >= 5)
            LogMessageTo(stderr, "%swrite(%s:%d) %d bytes\n", FailureHead().c_str(), data.address_text.data(),
                         Port(data), static_cast<int>(count));
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

// Sends what the callback supplies. The socket stays open after a failure.
int SendData(FtpConnection& data, const Transfer& transfer) {
    if (RunSettings.verbosity >= 4)
        LogMessage("writing to %s:%d\n", data.address_text.data(), Port(data));
    for (;;) {
        int count = TransferCapacity;
        if (transfer.send(transfer.argument, data.transfer_buffer.Data(), &count) != 0)
            return -1;
        if (count <= 0)
            return 0;
        if (RunSettings.verbosity >= 5)
            LogMessageTo(stderr, "%scallback gave us %d bytes\n", FailureHead().c_str(), count);
        if (WriteData(data, {data.transfer_buffer.Data(), static_cast<std::size_t>(count)}) != 0) {
            LogMessageTo(stderr, "%swe didn't send everything\n", FailureHead().c_str());
            return -1;
        }
    }
}

// Runs the whole transfer. Closing the socket is the end of file for a server that receives.
int RunTransfer(FtpConnection& control, const Transfer& transfer) {
    if (!IsControl(&control) || !HasDataRecord(&control))
        return -1;
    FtpConnection& data = *control.data;
    if (!data.socket.IsOpen()) {
        LogMessageTo(stderr, "%sno client descriptor\n", FailureHead().c_str());
        return -1;
    }
    const int result = transfer.receive != nullptr ? ReceiveData(data, transfer) : SendData(data, transfer);
    data.socket.Reset();
    return result;
}

// Reads "h1,h2,h3,h4,p1,p2" of a 227 reply, as in "227 Entering Passive Mode (10,20,144,151,62,141).", into
// the data record's address. The address text starts at the first digit that is not 0.
int ParsePassiveReply(FtpConnection& data, const char* reply) {
    data.address = {};
    data.address.sin_family = AF_INET;
    if (std::strncmp(reply, "227 ", 4) != 0) {
        LogMessageTo(stderr, "%sbad PASV response\n", FailureHead().c_str());
        return -1;
    }
    const char* from = std::strpbrk(reply + 4, "123456789");
    if (from == nullptr) {
        LogMessageTo(stderr, "%sPASV response without address\n", FailureHead().c_str());
        return -1;
    }
    std::array<char, INET_ADDRSTRLEN + 1>& text = data.address_text;
    std::size_t length = 0;
    for (int commas = 0; *from != '\0' && length < INET_ADDRSTRLEN; ++from) {
        if (*from == ',' && ++commas == 4)
            break;
        text[length++] = *from == ',' ? '.' : *from;
    }
    text[length] = '\0';
    const int converted = ::inet_pton(AF_INET, text.data(), &data.address.sin_addr);
    if (converted < 0) {
        LogMessageTo(stderr, "%sPASV response address: %s\n", FailureHead().c_str(), std::strerror(errno));
        return -1;
    }
    if (converted == 0 || *from != ',') {
        LogMessageTo(stderr, "%sPASV response address invalid\n", FailureHead().c_str());
        return -1;
    }
    const char* const first = from + 1;
    char* end;
    const unsigned long high = std::strtoul(first, &end, 10);
    const bool first_read = end != first && *end == ',';
    const char* const second = first_read ? end + 1 : end;
    const unsigned long low = std::strtoul(second, &end, 10);
    if (!first_read || end == second) {
        LogMessageTo(stderr, "%sPASV response port invalid\n", FailureHead().c_str());
        return -1;
    }
    data.address.sin_port = htons(static_cast<std::uint16_t>((high << 8) | low));
    return 0;
}

// Sets one option to 1 and gives setsockopt's result.
int SwitchOn(const Descriptor& socket, int level, int option) {
    const int on = 1;
    return ::setsockopt(socket.Get(), level, option, &on, sizeof on);
}

int ConnectData(FtpConnection& data) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, data.protocol));
    if (!socket.IsOpen()) {
        LogMessageTo(stderr, "%ssocket(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return -1;
    }
    if (SwitchOn(socket, SOL_SOCKET, SO_REUSEADDR) != 0) {
        LogMessageTo(stderr, "%ssetsockopt(, SOL_SOCKET, SO_REUSEADDR): %s\n", FailureHead().c_str(),
                     std::strerror(errno));
        return -1;
    }
    static_assert(IP_PMTUDISC_WANT == 1);
    if (SwitchOn(socket, SOL_IP, IP_MTU_DISCOVER) != 0)
        LogMessageTo(stderr, "%ssetsockopt(, SOL_IP, IP_MTU_DISCOVER, %X): %s\n", FailureHead().c_str(), 1U,
                     std::strerror(errno));
    if (SwitchOn(socket, SOL_TCP, TCP_NODELAY) != 0)
        LogMessageTo(stderr, "%ssetsockopt(, SOL_TCP, TCP_NODELAY, %X): %s\n", FailureHead().c_str(), 1U,
                     std::strerror(errno));
    KeepUrgentDataInline(socket);
    if (ConnectTo(socket, data.address) != 0) {
        LogMessageTo(stderr, "%sconnect(, %s:%d): %s\n", FailureHead().c_str(), data.address_text.data(), Port(data),
                     std::strerror(errno));
        return -1;
    }
    data.socket = std::move(socket);
    return 0;
}

int OpenDataConnection(FtpConnection& control, const char* reply) {
    if (!HasDataRecord(&control))
        return -1;
    control.data->socket.Reset();
    if (ParsePassiveReply(*control.data, reply) != 0)
        return -1;
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

// What one pass waits for: the control socket while the final reply is awaited, the data socket while it is
// open.
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

// Ends the pass loop after both connections had to be given up.
int AbandonConnections(Exchange& exchange) {
    if (exchange.control.data != nullptr)
        exchange.control.data->socket.Reset();
    FailControl(exchange.control);
    return -1;
}

// Makes the transfer's data connection and buffer ready.
int PrepareTransfer(FtpConnection& control) {
    if (!HasDataRecord(&control))
        return -1;
    FtpConnection& data = *control.data;
    if (!data.socket.IsOpen() && SendCommand(&control, "PASV") != 0) {
        LogMessageTo(stderr, "%sPASV command failed\n", FailureHead().c_str());
        return -1;
    }
    if (!data.transfer_buffer && !data.transfer_buffer.Map(TransferCapacity)) {
        LogMessageTo(stderr, "%smmap(, %u): %s\n", FailureHead().c_str(), static_cast<unsigned>(TransferCapacity),
                     std::strerror(errno));
        return -1;
    }
    return 0;
}

int WriteCommand(FtpConnection& control, const char* command) {
    if (std::strchr(command, '\n') != nullptr) { // what follows it would be a command of its own
        LogMessageTo(stderr, "%scommand holds a line end\n", FailureHead().c_str());
        return -1;
    }
    std::array<char, CommandCapacity> line{};
    // The limit of 4095 is tested against the whole line, while one character less is kept: a line
    // of just 4095 goes out with a zero byte for its LF.
    const int length = std::snprintf(line.data(), line.size() - 1, "%s\r\n", command);
    if (length < 0 || static_cast<std::size_t>(length) > line.size() - 1) {
        LogMessageTo(stderr, "%scommand too long\n", FailureHead().c_str());
        return -1;
    }
    std::string_view rest(line.data(), static_cast<std::size_t>(length));
    while (!rest.empty()) {
        const ssize_t count = ::send(control.socket.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0) {
            LogMessageTo(stderr, "%swrite(%s:%d,, %d): %s\n", FailureHead().c_str(), control.address_text.data(),
                         Port(control), static_cast<int>(rest.size()), std::strerror(errno));
            FailControl(control);
            return -1;
        }
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
    if (RunSettings.verbosity >= 3)
        LogMessage("%s: sent command \"%s\"\n", ProgramName, command);
    return 0;
}

// Requires: a control socket that is open when the final reply is awaited.
PollSet BuildPollSet(const Exchange& exchange) {
    const bool verbose = RunSettings.verbosity >= 4;
    PollSet set;
    if (exchange.AwaitsReply()) {
        set.control = set.Add(exchange.control.socket, POLLIN | POLLPRI);
        if (verbose)
            LogMessageTo(stderr, "%s'%c': looking for completion reply\n", FailureHead().c_str(), exchange.last[0]);
    }
    if (!exchange.DataOpen())
        return set;
    const bool receiving = exchange.transfer.receive != nullptr;
    set.data = set.Add(exchange.control.data->socket, receiving ? POLLIN | POLLPRI : POLLOUT);
    if (verbose && receiving)
        LogMessageTo(stderr, "%slooking for more data to read\n", FailureHead().c_str());
    if (verbose && !receiving)
        LogMessageTo(stderr, "%slooking for more data to write\n", FailureHead().c_str());
    return set;
}

void CopyReply(std::span<char> reply, const char* line) {
    if (!reply.empty())
        strncpy(reply.data(), line, reply.size());
}

// Reads reply lines until none is left buffered; the last of them counts.
void TakeReplies(Exchange& exchange) {
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
    } while (exchange.control.lines_held > 0);
}

// A minute without an event. Gives -1 when a transfer's patience has run out.
int CountSilence(Exchange& exchange) {
    exchange.waited += PollMilliseconds;
    LogMessageTo(stderr, "%spoll(): timedout after %.2fs (%.2fs)\n", FailureHead().c_str(), PollSeconds,
                 static_cast<double>(exchange.waited) / 1000.0);
    const bool exhausted = exchange.waited / PollMilliseconds >= RunSettings.timeout;
    return exchange.HasTransfer() && exhausted ? AbandonConnections(exchange) : 0;
}

// What the events of one pass ask for. Gives -1 when the exchange is over.
int HandleEvents(Exchange& exchange, const PollSet& set) {
    const int on_control = set.Events(set.control);
    const int on_data = set.Events(set.data);
    if ((on_control & (POLLIN | POLLPRI)) != 0)
        TakeReplies(exchange);
    if (on_data != 0 && RunTransfer(exchange.control, exchange.transfer) != 0 && exchange.result == 0)
        exchange.result = -1;
    if (((on_control | on_data) & ~(POLLIN | POLLPRI | POLLOUT)) != 0) {
        LogMessageTo(stderr, "%spoll(): revents: 0x%X, 0x%X\n", FailureHead().c_str(),
                     static_cast<unsigned>(set.Events(0)), static_cast<unsigned>(set.Events(1)));
        return AbandonConnections(exchange);
    }
    exchange.waited = 0;
    return 0;
}

// Waits until the final reply is in and the data connection closed; gives the result, as SendCommand does.
int AwaitCompletion(Exchange& exchange) {
    do {
        if (exchange.AwaitsReply() && !exchange.control.socket.IsOpen()) {
            LogMessageTo(stderr, "%scontrol connection gone\n", FailureHead().c_str());
            return AbortToCheckpoint(exchange.control.owner);
        }
        PollSet set = BuildPollSet(exchange);
        if (set.count == 0)
            break;
        const int events = Poll({set.entries.data(), set.count});
        if (events < 0)
            return ReportPoll();
        if ((events == 0 ? CountSilence(exchange) : HandleEvents(exchange, set)) != 0)
            return -1;
    } while (exchange.AwaitsReply() || exchange.DataOpen());
    return exchange.result;
}

} // namespace

int SendCommand(FtpConnection* control, const char* command, std::span<char> reply, const Transfer& transfer) {
    if (!IsControl(control))
        return -1;
    Exchange exchange{*control, transfer, reply};
    if (exchange.HasTransfer() && PrepareTransfer(*control) != 0)
        return -1;
    if (WriteCommand(*control, command) != 0)
        return -1;
    const int result = AwaitCompletion(exchange);
    if (result != 0)
        return result;
    if (::strcasecmp(command, "PASV") == 0 && OpenDataConnection(*control, exchange.last.data()) != 0) {
        LogMessageTo(stderr, "%scan't connect data port\n", FailureHead().c_str());
        return -1;
    }
    if (::strcasecmp(command, "SYST") == 0)
        CopyReply(reply, exchange.last.data());
    return 0;
}

// Closing

int CloseConnection(std::unique_ptr<FtpConnection> connection) {
    if (!IsControl(connection.get()))
        return -1; // a data record's socket goes with the record
    CloseConnection(std::move(connection->data));
    return connection->socket.Close();
}
