// The data connection of a session, and the commands that move files and listings over it.

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "save_file.h"
#include "session.h"
#include "texts.h"

namespace rehearsal {

namespace {

constexpr int ConnectWait = 5000; // milliseconds for the client's data connection to arrive
constexpr int RefusedWait = 200;  // the same when it is only to be closed in order
constexpr int DrainWait = 2000;   // silence after which a client's refused data are no longer awaited

bool IsZero(std::span<const char> bytes) {
    return bytes[0] == 0 && std::equal(bytes.begin() + 1, bytes.end(), bytes.begin());
}

// Binds to some port of the address. Ports are taken in turn, also those whose last connection has just ended: the
// system does not give these away for a minute, and with thousands of transfers it searches ever longer for another
// one.
bool BindAnyPort(int socket, sockaddr_in address) {
    constexpr unsigned first = 49152; // the dynamic ports
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

// ---- connection

void Session::Pasv(const std::string&) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ::getsockname(control_.get(), generic, &length);
    Descriptor passive(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!passive || !BindAnyPort(passive.get(), address) || ::listen(passive.get(), 1) != 0 ||
        ::getsockname(passive.get(), generic, &length) != 0)
        return Reply(text::NoDataConnection);
    Install(data_, Descriptor());
    if (Active(Fault::Kind::DataRefuse))
        passive = Descriptor();
    Install(passive_, std::move(passive));
    std::string list;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        list += std::to_string(ntohl(address.sin_addr.s_addr) >> shift & 0xFF) + ",";
    const unsigned port = ntohs(address.sin_port);
    list += std::to_string(port >> 8) + "," + std::to_string(port & 0xFF);
    Reply(Fill(text::Passive, {list}));
}

bool Session::OpenData(int wait_milliseconds) {
    if (!passive_ || !WaitFor(passive_.get(), POLLIN, wait_milliseconds))
        return false;
    Install(data_, Descriptor(::accept4(passive_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    Install(passive_, Descriptor());
    return static_cast<bool>(data_);
}

// Closes the data connection in order: what the client is still sending is read away first, since closing
// over unread data would reset the connection and with it the client's view of the whole session.
void Session::CloseData() {
    if (data_ || OpenData(RefusedWait)) {
        std::vector<char> ignored(BlockSize);
        ::shutdown(data_.get(), SHUT_WR);
        while (WaitFor(data_.get(), POLLIN, DrainWait) && ::recv(data_.get(), ignored.data(), ignored.size(), 0) > 0)
            continue;
    }
    Install(data_, Descriptor());
    Install(passive_, Descriptor());
}

void Session::RefuseTransfer(const std::string& reply) {
    Reply(reply);
    CloseData();
}

// ---- moving data, with the faults of the data connection

std::size_t Session::Allowance(std::size_t wanted) const {
    for (const auto kind : {Fault::Kind::DataClose, Fault::Kind::DataReset, Fault::Kind::DataSilent})
        if (const Fault* fault = Active(kind))
            wanted = std::min(wanted, fault->bytes - std::min(fault->bytes, moved_));
    return wanted;
}

Session::Moved Session::CutData() {
    if (Active(Fault::Kind::DataSilent))
        AwaitClientLeaving();
    if (Active(Fault::Kind::DataReset))
        CloseByReset(data_.get());
    Install(data_, Descriptor());
    return Moved::Cut;
}

Session::Moved Session::SendData(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t allowed = Allowance(bytes.size());
        if (allowed == 0)
            return CutData();
        const ssize_t count = ::send(data_.get(), bytes.data(), allowed, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
            return Moved::Broken;
        moved_ += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return Allowance(1) == 0 ? CutData() : Moved::All;
}

Session::Moved Session::SendFile(int file) {
    for (;;) {
        const std::size_t allowed = Allowance(4 * BlockSize);
        if (allowed == 0)
            return CutData();
        const ssize_t count = ::sendfile(data_.get(), file, nullptr, allowed);
        if (count == 0)
            return Moved::All;
        if (count < 0 && errno != EINTR)
            return Moved::Broken;
        moved_ += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

// Whole blocks of zeros become holes: a save file of some gigabytes of nothing takes no room.
Session::Moved Session::ReceiveFile(int file) {
    std::vector<char> buffer(BlockSize);
    for (;;) {
        const std::size_t allowed = Allowance(buffer.size());
        const ssize_t count = allowed == 0 ? 0 : ::recv(data_.get(), buffer.data(), allowed, MSG_WAITALL);
        if (count < 0 && errno != EINTR)
            return Moved::Broken;
        if (count == 0 && ::ftruncate(file, static_cast<off_t>(moved_)) != 0)
            return Moved::Broken;
        if (count == 0)
            return allowed == 0 ? CutData() : Moved::All;
        if (count < 0)
            continue;
        const std::span<const char> block(buffer.data(), static_cast<std::size_t>(count));
        if (!IsZero(block)) {
            ::lseek(file, static_cast<off_t>(moved_), SEEK_SET);
            WriteFully(file, block);
        }
        moved_ += block.size();
    }
}

void Session::FinishTransfer(Moved moved, const char* completed) {
    Install(data_, Descriptor());
    shared_.RecordMoved(exchange_, moved_);
    Reply(moved == Moved::Broken ? text::DataBroken : completed);
}

// ---- LIST

namespace {

std::string ModeText(mode_t mode) {
    constexpr std::string_view letters = "rwxrwxrwx";
    std::string text(1, S_ISDIR(mode) ? 'd' : S_ISLNK(mode) ? 'l' : '-');
    for (std::size_t bit = 0; bit < letters.size(); bit++)
        text += (mode >> (8 - bit) & 1) != 0 ? letters[bit] : '-';
    return text;
}

// The time of day within the last 180 days, otherwise the year.
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
        if (const auto target = shared_.store.Look(path, true))
            status = *target;
        else if (const auto place = shared_.store.Locate(path, false))
            name += " -> " + place->LinkTarget();
    }
    std::array<char, 96> fields{};
    std::snprintf(fields.data(), fields.size(), "%s %3d %-8s %-8s %7llu %s ", ModeText(status.mode).c_str(), 1, "QPGMR",
                  "0", static_cast<unsigned long long>(status.size), DateText(status.changed.tv_sec).c_str());
    return fields.data() + name + "\r\n";
}

void Session::List(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto status = path ? shared_.store.Look(*path, true) : std::nullopt;
    if (!status)
        return RefuseTransfer(Fill(text::NoPath, {parameter}));
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    Reply(text::ListStarted);
    const auto rows =
        S_ISDIR(status->mode) ? shared_.store.Children(*path) : std::vector<Child>{{NameOf(*path), *status}};
    const std::string directory = S_ISDIR(status->mode) ? *path : ParentOf(*path);
    std::string block;
    Moved moved = Moved::All;
    for (std::size_t row = 0; row < rows.size() && moved == Moved::All; row++) {
        block += ListRow(directory, rows[row]);
        if (block.size() >= BlockSize) {
            moved = SendData(block);
            block.clear();
        }
    }
    FinishTransfer(moved == Moved::All ? SendData(block) : moved, text::ListCompleted);
}

// ---- RETR and STOR

// Save files are records, which only an image transfer keeps.
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
        refusal = Fill(text::WantsImage, {parameter});
    else if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        refusal = Fill(text::NoFile, {parameter});
    return file;
}

Descriptor Session::OpenToReceive(const std::string& parameter, std::string& refusal) const {
    if (NeedsImage(parameter)) {
        refusal = Fill(text::WantsImage, {parameter});
        return Descriptor();
    }
    if (const auto save_file = SaveFileName(parameter, ".SAVF"))
        return library_->Replace(*save_file);
    const auto path = NormalPath(directory_, parameter);
    const auto place = path ? shared_.store.Locate(*path, true) : std::nullopt;
    Descriptor file = place ? place->Open(O_WRONLY | O_CREAT | O_TRUNC, 0666) : Descriptor();
    if (!file)
        refusal = Fill(text::NotWritable, {parameter});
    return file;
}

void Session::Retr(const std::string& parameter) {
    std::string refusal;
    const Descriptor file = OpenToSend(parameter, refusal);
    if (!refusal.empty())
        return RefuseTransfer(refusal);
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    Reply(Fill(text::Retrieving, {parameter}));
    FinishTransfer(SendFile(file.get()), text::TransferCompleted);
}

void Session::Stor(const std::string& parameter) {
    if (!OpenData(ConnectWait))
        return Reply(text::NoDataConnection);
    std::string refusal;
    const Descriptor file = OpenToReceive(parameter, refusal);
    if (!refusal.empty())
        return RefuseTransfer(refusal);
    Reply(Fill(text::Sending, {parameter}));
    FinishTransfer(ReceiveFile(file.get()), text::TransferCompleted);
}

} // namespace rehearsal
