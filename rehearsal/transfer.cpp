// The data connection of a session, and the commands that transfer files and listings.

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <ctime>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "resources.h"
#include "save_file.h"
#include "session.h"
#include "text.h"
#include "texts.h"

namespace rehearsal {

namespace {

// Milliseconds
constexpr int ConnectWait = 5000; // for the client to open the data connection
constexpr int RefusedWait = 200;  // the same for a refused transfer
constexpr int DrainWait = 2000;   // for more data of a refused transfer

constexpr std::uint64_t PiecesPerSecond = 20; // of a transfer with a rate

bool IsZero(std::span<const char> bytes) {
    return bytes[0] == 0 && std::equal(bytes.begin() + 1, bytes.end(), bytes.begin());
}

// Binds to any free port of the address. The ports are used in turn, including those whose last connection ended less
// than a minute ago. The system would not choose those, and after thousands of transfers its search for another one is
// slow.
bool BindAnyPort(int socket, sockaddr_in address) {
    constexpr unsigned first = 49152; // start of the dynamic ports
    constexpr unsigned count = 65536 - first;
    static std::atomic<unsigned> next = static_cast<unsigned>(::getpid());
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    for (unsigned tries = 0; tries < count; tries++) {
        address.sin_port = htons(static_cast<in_port_t>(first + next++ % count));
        if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return true;
        if (errno != EADDRINUSE)
            return false;
    }
    return false;
}

} // namespace

void Session::Pasv(const std::string&) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ::getsockname(control_.socket.Get(), generic, &length);
    Descriptor passive(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!passive.IsOpen() || !BindAnyPort(passive.Get(), address) || ::listen(passive.Get(), 1) != 0 ||
        ::getsockname(passive.Get(), generic, &length) != 0)
        return Reply(text::NoDataConnection);
    ReplaceSocket(data_.socket, Descriptor());
    if (Active(Fault::Kind::DataRefuse))
        passive = Descriptor();
    ReplaceSocket(passive_, std::move(passive));
    if (!shared_.options.passive_address.empty())
        ::inet_pton(AF_INET, shared_.options.passive_address.c_str(), &address.sin_addr);
    const std::uint32_t host = ntohl(address.sin_addr.s_addr);
    const unsigned port = ntohs(address.sin_port);
    const std::string numbers = FormatText("%u,%u,%u,%u,%u,%u", host >> 24, host >> 16 & 0xFF, host >> 8 & 0xFF,
                                           host & 0xFF, port >> 8, port & 0xFF);
    Reply(Substitute(text::Passive, {numbers}));
}

bool Session::OpenData(int wait_milliseconds) {
    if (!passive_.IsOpen() || !WaitFor(passive_.Get(), POLLIN, wait_milliseconds))
        return false;
    ReplaceSocket(data_.socket, Descriptor(::accept4(passive_.Get(), nullptr, nullptr, SOCK_CLOEXEC)));
    ReplaceSocket(passive_, Descriptor());
    transfer_start_ = std::chrono::steady_clock::now();
    return data_.socket.IsOpen();
}

// Sends the preliminary reply and protects the data connection. Returns false after refusing the transfer.
bool Session::BeginTransfer(const std::string& reply) {
    Reply(reply);
    if (!protects_data_)
        return true;
    data_.tls = AcceptTls(*shared_.tls, data_.socket.Get(), !Active(Fault::Kind::DataNoResume));
    const bool accepted = data_.tls != nullptr && (IsResumed(*data_.tls) || !shared_.options.tls.require_resumption);
    if (accepted)
        return true;
    data_.tls.reset();
    ReplaceSocket(data_.socket, Descriptor());
    Reply(text::NotResumed);
    return false;
}

// Closes the data connection after reading what the client is still sending. With unread data, close would send a
// reset, and the client would see a broken connection instead of a refused transfer.
void Session::CloseData() {
    if (data_.socket.IsOpen() || OpenData(RefusedWait)) {
        std::vector<char> ignored(TransferPiece);
        ::shutdown(data_.socket.Get(), SHUT_WR);
        while (WaitFor(data_.socket.Get(), POLLIN, DrainWait) &&
               ::recv(data_.socket.Get(), ignored.data(), ignored.size(), 0) > 0)
            continue;
    }
    ReplaceSocket(data_.socket, Descriptor());
    ReplaceSocket(passive_, Descriptor());
}

void Session::RefuseTransfer(const std::string& reply) {
    Reply(reply);
    CloseData();
}

std::size_t Session::AllowedBytes(std::size_t wanted) const {
    for (const auto kind :
         {Fault::Kind::DataClose, Fault::Kind::DataReset, Fault::Kind::DataSilent, Fault::Kind::DataCutRecord})
        if (const Fault* fault = Active(kind))
            wanted = std::min(wanted, fault->bytes - std::min(fault->bytes, transferred_));
    const std::uint64_t rate = shared_.options.transfer_rate;
    return rate == 0 ? wanted
                     : std::min(wanted, static_cast<std::size_t>(std::max(rate / PiecesPerSecond, std::uint64_t{1})));
}

void Session::CountTransferred(std::size_t bytes) {
    transferred_ += bytes;
    WaitAtRate(transferred_, shared_.options.transfer_rate, transfer_start_);
}

// Waits until the time that `bytes` take at `rate` bytes a second has passed since `start`, or until the client leaves.
// A rate of 0 has no limit.
void Session::WaitAtRate(std::uint64_t bytes, std::uint64_t rate, std::chrono::steady_clock::time_point start) {
    if (rate == 0)
        return;
    const std::chrono::duration<double, std::milli> passed = std::chrono::steady_clock::now() - start;
    const double wait = 1000.0 * static_cast<double>(bytes) / static_cast<double>(rate) - passed.count();
    if (wait > 0)
        WaitFor(control_.socket.Get(), POLLRDHUP, static_cast<int>(std::min(std::ceil(wait), double{INT_MAX})));
}

Session::TransferResult Session::CutData() {
    if (Active(Fault::Kind::DataSilent))
        AwaitClientLeaving();
    if (Active(Fault::Kind::DataReset))
        CloseByReset(data_.socket.Get());
    if (data_.tls != nullptr && Active(Fault::Kind::DataCutRecord))
        SendHalfRecord(*data_.tls);
    data_.tls.reset();
    ReplaceSocket(data_.socket, Descriptor());
    return TransferResult::Cut;
}

Session::TransferResult Session::SendData(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t allowed = AllowedBytes(bytes.size());
        if (allowed == 0)
            return CutData();
        if (!SendAll(data_, bytes.substr(0, allowed)))
            return TransferResult::Broken;
        CountTransferred(allowed);
        bytes.remove_prefix(allowed);
    }
    return AllowedBytes(1) == 0 ? CutData() : TransferResult::Complete;
}

// sendfile() would pass TLS by.
Session::TransferResult Session::SendFileProtected(int file) {
    std::vector<char> buffer(4 * TransferPiece);
    for (;;) {
        const ssize_t count = ReadSome(file, buffer.data(), buffer.size());
        if (count < 0)
            return TransferResult::Broken;
        const TransferResult result = SendData({buffer.data(), static_cast<std::size_t>(count)});
        if (count == 0 || result != TransferResult::Complete)
            return result;
    }
}

Session::TransferResult Session::SendFile(int file) {
    if (data_.tls != nullptr)
        return SendFileProtected(file);
    for (;;) {
        const std::size_t allowed = AllowedBytes(4 * TransferPiece);
        if (allowed == 0)
            return CutData();
        const ssize_t count = ::sendfile(data_.socket.Get(), file, nullptr, allowed);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0 ? TransferResult::Complete : TransferResult::Broken;
        CountTransferred(static_cast<std::size_t>(count));
    }
}

// Blocks of zeros become holes, so that a save file of gigabytes of zeros needs no disk space.
Session::TransferResult Session::ReceiveFile(int file) {
    std::vector<char> buffer(TransferPiece);
    for (;;) {
        const std::size_t allowed = AllowedBytes(buffer.size());
        const ssize_t count = allowed == 0 ? 0 : ReceiveAll(data_, std::span(buffer).first(allowed));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 || (count == 0 && ::ftruncate(file, static_cast<off_t>(transferred_)) != 0))
            return TransferResult::Broken;
        if (count == 0)
            return allowed == 0 ? CutData() : TransferResult::Complete;
        const std::span<const char> block(buffer.data(), static_cast<std::size_t>(count));
        if (!IsZero(block)) {
            ::lseek(file, static_cast<off_t>(transferred_), SEEK_SET);
            WriteOrThrow(file, block);
        }
        CountTransferred(block.size());
    }
}

void Session::FinishTransfer(TransferResult result, const char* completed) {
    if (result == TransferResult::Complete && !Active(Fault::Kind::DataNoNotify))
        CloseTls(data_);
    data_.tls.reset();
    ReplaceSocket(data_.socket, Descriptor());
    shared_.RecordTransferred(exchange_, transferred_);
    Reply(result == TransferResult::Broken ? text::DataBroken : completed);
}

namespace {

std::string ModeText(mode_t mode) {
    constexpr std::string_view letters = "rwxrwxrwx";
    std::string text(1, S_ISDIR(mode) ? 'd' : S_ISLNK(mode) ? 'l' : '-');
    for (std::size_t bit = 0; bit < letters.size(); bit++)
        text += (mode >> (8 - bit) & 1) != 0 ? letters[bit] : '-';
    return text;
}

// With the time of day for the last 180 days, otherwise with the year.
std::string DateText(std::time_t changed) {
    constexpr std::time_t recent = 180 * 24 * 60 * 60;
    const std::time_t age = std::time(nullptr) - changed;
    std::tm fields{};
    std::array<char, 32> text{};
    ::localtime_r(&changed, &fields);
    if (age >= 0 && age < recent)
        std::strftime(text.data(), text.size(), "%b %e %H:%M", &fields);
    else
        std::strftime(text.data(), text.size(), "%b %e  %Y", &fields);
    return text.data();
}

} // namespace

std::string Session::ListRow(const std::string& directory, const Child& child) const {
    Status status = child.status;
    std::string name = child.name;
    if (S_ISLNK(status.mode)) {
        const std::string path = Join(directory, name);
        if (const auto target = shared_.store.ReadStatus(path, true))
            status = *target;
        else if (const auto place = shared_.store.Locate(path, false))
            name += " -> " + place->LinkTarget();
    }
    return FormatText("%s %3d %-8s %-8s %7ju %s %s\r\n", ModeText(status.mode).c_str(), 1, "QPGMR", "0",
                      std::uintmax_t{status.size}, DateText(status.changed.tv_sec).c_str(), name.c_str());
}

void Session::List(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto status = path ? shared_.store.ReadStatus(*path, true) : std::nullopt;
    if (!status)
        return RefuseTransfer(Substitute(text::NoPath, {parameter}));
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    if (!BeginTransfer(text::ListStarted))
        return;
    const auto rows =
        S_ISDIR(status->mode) ? shared_.store.Children(*path) : std::vector<Child>{{NameOf(*path), *status}};
    std::string block;
    TransferResult result = TransferResult::Complete;
    for (std::size_t row = 0; row < rows.size() && result == TransferResult::Complete; row++) {
        block += ListRow(*path, rows[row]);
        if (block.size() >= TransferPiece) {
            result = SendData(block);
            block.clear();
        }
    }
    FinishTransfer(result == TransferResult::Complete ? SendData(block) : result, text::ListCompleted);
}

// Whether this is a save file and the type is ASCII, which would destroy its records.
bool Session::NeedsImage(const std::string& parameter) const {
    return !image_ && SaveFileName(parameter, ".SAVF");
}

Descriptor Session::OpenToSend(const std::string& parameter, std::string& refusal) const {
    const auto save_file = SaveFileName(parameter, ".SAVF");
    const auto path = NormalPath(directory_, parameter);
    const auto place = path && !save_file ? shared_.store.Locate(*path, true) : std::nullopt;
    Descriptor file = save_file ? library_->Open(*save_file) : place ? place->Open(O_RDONLY) : Descriptor();
    struct stat info {};
    if (NeedsImage(parameter))
        refusal = Substitute(text::WantsImage, {parameter});
    else if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode))
        refusal = Substitute(text::NoFile, {parameter});
    return file;
}

Descriptor Session::OpenToReceive(const std::string& parameter, std::string& refusal) const {
    if (NeedsImage(parameter)) {
        refusal = Substitute(text::WantsImage, {parameter});
        return Descriptor();
    }
    if (const auto save_file = SaveFileName(parameter, ".SAVF"))
        return library_->Replace(*save_file);
    const auto path = NormalPath(directory_, parameter);
    const auto place = path ? shared_.store.Locate(*path, true) : std::nullopt;
    Descriptor file = place ? place->Open(O_WRONLY | O_CREAT | O_TRUNC, 0666) : Descriptor();
    if (!file.IsOpen())
        refusal = Substitute(text::NotWritable, {parameter});
    return file;
}

void Session::Retr(const std::string& parameter) {
    std::string refusal;
    const Descriptor file = OpenToSend(parameter, refusal);
    if (!refusal.empty())
        return RefuseTransfer(refusal);
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    if (BeginTransfer(Substitute(text::Retrieving, {parameter})))
        FinishTransfer(SendFile(file.Get()), text::TransferCompleted);
}

void Session::Stor(const std::string& parameter) {
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    std::string refusal;
    const Descriptor file = OpenToReceive(parameter, refusal);
    if (!refusal.empty())
        return RefuseTransfer(refusal);
    if (BeginTransfer(Substitute(text::Sending, {parameter})))
        FinishTransfer(ReceiveFile(file.Get()), text::TransferCompleted);
}

} // namespace rehearsal
