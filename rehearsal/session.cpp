#include "session.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <exception>

#include <poll.h>
#include <sys/socket.h>

#include "resources.h"
#include "text.h"
#include "texts.h"

namespace rehearsal {

namespace {

constexpr std::size_t FloodBlock = 64 * 1024; // least bytes of a flood that are sent at once
constexpr std::size_t LineLimit = 64 * 1024;  // bytes; a longer command line ends the session

} // namespace

bool WaitFor(int socket, short events, int milliseconds) {
    pollfd entry{socket, events, 0};
    int result = 0;
    do
        result = ::poll(&entry, 1, milliseconds);
    while (result < 0 && errno == EINTR);
    return result > 0;
}

void CloseByReset(int socket) {
    const linger at_once{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

std::size_t SharedState::RecordCommand(int session, const std::string& line) {
    if (!options.record)
        return 0;
    const bool secret = StartsWithIgnoringCase(line, "PASS ");
    const std::lock_guard lock(mutex_);
    exchanges_.push_back({session, secret ? line.substr(0, 5) + "****" : line, {}});
    return exchanges_.size() - 1;
}

void SharedState::RecordReply(std::size_t exchange, const std::string& reply) {
    const std::lock_guard lock(mutex_);
    if (options.record)
        exchanges_[exchange].replies.push_back(reply);
}

void SharedState::RecordTransferred(std::size_t exchange, std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    if (options.record)
        exchanges_[exchange].moved = bytes;
}

std::vector<Exchange> SharedState::Exchanges() const {
    const std::lock_guard lock(mutex_);
    return exchanges_;
}

std::vector<const Fault*> SharedState::FaultsOf(const std::string& line) {
    std::vector<const Fault*> faults;
    const std::lock_guard lock(mutex_);
    for (std::size_t index = 0; index < counts_.size(); index++) {
        const Fault& fault = options.faults[index];
        const bool match = fault.command.empty() ? line.empty() : line.starts_with(fault.command);
        if (match && (++counts_[index] == fault.nth || fault.nth == 0))
            faults.push_back(&fault);
    }
    met_faults += static_cast<int>(faults.size());
    return faults;
}

void Session::Run() {
    try {
        const TemporaryLibrary library;
        library_ = &library;
        Serve();
    } catch (const SessionEnded&) {
    } catch (const std::exception& error) {
        const std::string text = Substitute(text::NoService, {error.what()}) + "\r\n";
        SendAll(control_, text);
    }
    // A client that sees the connection end may rely on QTEMP being removed and the session no longer being counted.
    library_ = nullptr;
    shared_.open--;
    ReplaceSocket(passive_, Descriptor());
    ReplaceSocket(data_.socket, Descriptor());
    if (!Active(Fault::Kind::Close) && !Active(Fault::Kind::Reset))
        CloseTls(control_);
    control_.tls.reset();
    ReplaceSocket(control_.socket, Descriptor());
}

void Session::Interrupt() {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    for (const Descriptor* socket :
         {&data_.socket, &passive_, &control_.socket}) // a slow transfer ends before its session
        if (socket->IsOpen())
            ::shutdown(socket->Get(), SHUT_RDWR);
}

void Session::CloseTls(Wire& wire) {
    if (wire.tls != nullptr && !rehearsal::CloseTls(*wire.tls) && faults_.empty())
        shared_.unclean++;
}

void Session::ReplaceSocket(Descriptor& slot, Descriptor value) {
    const std::lock_guard lock(mutex_);
    std::swap(slot, value);
    if (ending_ && slot.IsOpen())
        ::shutdown(slot.Get(), SHUT_RDWR);
}

void Session::ProtectControl() {
    received_.clear();
    control_.tls = AcceptTls(*shared_.tls, control_.socket.Get(), true);
    if (control_.tls == nullptr)
        throw SessionEnded();
}

void Session::Serve() {
    if (shared_.options.tls.implicit)
        ProtectControl();
    faults_ = shared_.FaultsOf("");
    exchange_ = shared_.RecordCommand(number_, "");
    Reply(text::Greeting);
    for (;;) {
        const std::string line = ReadLine(idle_seconds_);
        if (!line.empty())
            ProcessCommand(line);
    }
}

void Session::ProcessCommand(const std::string& line) {
    exchange_ = shared_.RecordCommand(number_, line);
    if (shared_.options.on_command)
        shared_.options.on_command(line);
    faults_ = shared_.FaultsOf(line);
    replies_ = 0;
    transferred_ = 0;
    const std::size_t blank = std::min(line.find(' '), line.size());
    verb_ = ToUpper(line.substr(0, blank));
    const std::string parameter = line.substr(std::min(line.find_first_not_of(' ', blank), line.size()));
    const auto verb =
        std::find_if(Verbs().begin(), Verbs().end(), [&](const Verb& each) { return each.name == verb_; });
    const bool transfers = verb != Verbs().end() && verb->transfers;

    if (const Fault* fault = Active(Fault::Kind::Replace, 0);
        fault && !(transfers && fault->text.starts_with('1')) && !(verb_ == "AUTH" && fault->text.starts_with('2'))) {
        Reply("");
        if (transfers)
            CloseData();
    } else if (verb == Verbs().end()) {
        Reply(Substitute(text::UnknownCommand, {verb_}));
    } else if (!logged_on_ && !verb->before_logon) {
        Reply(text::NotLoggedOn);
    } else if (transfers && shared_.tls != nullptr && !protects_data_) {
        RefuseTransfer(Substitute(text::WantsTls, {verb_}));
    } else {
        (this->*verb->run)(parameter);
    }
}

std::string Session::ReadLine(int wait_seconds) {
    std::size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
        std::array<char, 4096> buffer{};
        const int wait = wait_seconds < 0 ? -1 : std::min(wait_seconds, INT_MAX / 1000) * 1000;
        if (received_.size() > LineLimit || !AwaitBytes(control_, wait))
            throw SessionEnded();
        const ssize_t count = Receive(control_, buffer);
        if (count == 0 || (count < 0 && errno != EINTR))
            throw SessionEnded();
        received_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    if (line.ends_with('\r'))
        line.pop_back();
    return line;
}

const Fault* Session::Active(Fault::Kind kind) const {
    const auto found =
        std::find_if(faults_.begin(), faults_.end(), [&](const Fault* each) { return each->kind == kind; });
    return found == faults_.end() ? nullptr : *found;
}

const Fault* Session::Active(Fault::Kind kind, int reply) const {
    const auto found = std::find_if(faults_.begin(), faults_.end(),
                                    [&](const Fault* each) { return each->kind == kind && each->reply == reply; });
    return found == faults_.end() ? nullptr : *found;
}

void Session::Reply(std::string text) {
    using Kind = Fault::Kind;
    const int reply = replies_++;
    if (shared_.options.capitals)
        text = ToUpper(text);
    if (const Fault* fault = Active(Kind::Replace, reply))
        text = fault->text;
    text += "\r\n";
    shared_.RecordReply(exchange_, text);
    if (const Fault* fault = Active(Kind::Silent, reply)) {
        if (fault->pause_ms == 0)
            AwaitClientLeaving();
        WaitFor(control_.socket.Get(), POLLRDHUP, fault->pause_ms);
        throw SessionEnded();
    }
    const Fault* reset = Active(Kind::Reset, reply);
    if (const Fault* fault = reset ? reset : Active(Kind::Close, reply)) {
        SendControl(std::string_view(text).substr(0, fault->bytes));
        if (reset)
            CloseByReset(control_.socket.Get());
        throw SessionEnded();
    }
    if (const Fault* fault = Active(Kind::Flood, reply))
        SendFlood(text, *fault);
    if (const Fault* fault = Active(Kind::Pieces, reply))
        SendPieces(text, *fault);
    else
        SendControl(text);
    if (Active(Kind::CloseAfter, reply))
        throw SessionEnded();
}

void Session::SendPieces(const std::string& bytes, const Fault& fault) {
    std::size_t sent = 0;
    for (const std::size_t cut : fault.cuts) {
        const std::size_t end = std::clamp(cut, sent, bytes.size());
        SendControl(std::string_view(bytes).substr(sent, end - sent));
        sent = end;
        WaitFor(control_.socket.Get(), POLLRDHUP, fault.pause_ms); // the pause ends early when the connection ends
    }
    SendControl(std::string_view(bytes).substr(sent));
}

void Session::SendFlood(const std::string& reply, const Fault& fault) {
    const std::string text = fault.text.empty() ? reply.substr(0, 3) + "-Still running.\r\n" : fault.text;
    std::string block = text;
    while (fault.pause_ms == 0 && block.size() < FloodBlock)
        block += text;
    do
        SendControl(block);
    while (fault.pause_ms == 0 || !WaitFor(control_.socket.Get(), POLLRDHUP, fault.pause_ms));
    throw SessionEnded();
}

void Session::SendControl(std::string_view bytes) {
    if (!SendAll(control_, bytes))
        throw SessionEnded();
}

void Session::AwaitClientLeaving() {
    for (;;)
        ReadLine(-1);
}

} // namespace rehearsal
