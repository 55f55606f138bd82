#include "rehearsal.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <list>
#include <system_error>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

#include "session.h"

namespace rehearsal {

namespace {

[[noreturn]] void Fail(const std::string& call) {
    throw std::system_error(errno, std::generic_category(), call);
}

// Signals belong to the program around the server, so its threads block all of them. A broken connection is then an
// error of write or sendfile instead of SIGPIPE.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all{};
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

Descriptor Listen(const std::string& address, std::uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    const std::string place = address + ":" + std::to_string(port);
    errno = EINVAL;
    if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1)
        Fail("inet_pton(" + address + ")");
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!socket.IsOpen() || ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        Fail("socket");
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
        Fail("bind(" + place + ")");
    if (::listen(socket.Get(), SOMAXCONN) != 0)
        Fail("listen(" + place + ")");
    return socket;
}

} // namespace

struct Server::State {
    explicit State(Options options);
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void Accept();
    void Start(Descriptor control);
    void RemoveEndedSessions();

    struct RunningSession {
        Session session;
        std::atomic<bool> ended = false;
        std::thread thread;
        RunningSession(SharedState& shared, Descriptor control, int number)
            : session(shared, std::move(control), number) {}
    };

    SharedState shared;
    Descriptor listener;
    std::atomic<bool> ending = false;
    std::atomic<int> accepted = 0;
    std::list<RunningSession> sessions; // changed by the accepting thread; after its end, by the destructor
    std::thread accepting;
};

Server::State::State(Options options)
    : shared(std::move(options)), listener(Listen(shared.options.address, shared.options.port)) {
    if (shared.options.sample)
        MakeSample(shared.options.root);
    const SignalsBlocked blocked;
    accepting = std::thread([this] { Accept(); });
}

Server::State::~State() {
    ending = true;
    ::shutdown(listener.Get(), SHUT_RDWR);
    accepting.join();
    for (RunningSession& running : sessions)
        running.session.Interrupt();
    for (RunningSession& running : sessions)
        running.thread.join();
}

void Server::State::Accept() {
    while (!ending) {
        Descriptor control(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (control.IsOpen() && !ending)
            Start(std::move(control));
        else if (!ending && errno != EINTR && errno != ECONNABORTED)
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // out of descriptors, probably for a short time
    }
}

void Server::State::Start(Descriptor control) {
    const int on = 1;
    ::setsockopt(control.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    RemoveEndedSessions();
    shared.open++;
    RunningSession& running = sessions.emplace_back(shared, std::move(control), accepted++);
    try {
        running.thread = std::thread([&running] {
            running.session.Run();
            running.ended = true;
        });
    } catch (const std::system_error&) { // out of threads, probably for a short time
        sessions.pop_back();
        shared.open--;
    }
}

void Server::State::RemoveEndedSessions() {
    sessions.remove_if([](RunningSession& running) {
        const bool ended = running.ended; // read once: what is removed must have been joined
        if (ended)
            running.thread.join();
        return ended;
    });
}

Server::Server(Options options) : state_(std::make_unique<State>(std::move(options))) {}

Server::~Server() = default;

std::uint16_t Server::Port() const {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    if (::getsockname(state_->listener.Get(), reinterpret_cast<sockaddr*>(&name), &length) != 0)
        Fail("getsockname");
    return ntohs(name.sin_port);
}

int Server::FaultCount() const {
    return state_->shared.met_faults;
}

std::vector<Exchange> Server::Exchanges() const {
    return state_->shared.Exchanges();
}

std::vector<std::string> Server::Transcript(int session) const {
    std::vector<std::string> lines;
    for (const Exchange& exchange : Exchanges())
        if ((session == -1 || session == exchange.session) && !exchange.command.empty())
            lines.push_back(exchange.command);
    return lines;
}

int Server::SessionCount() const {
    return state_->accepted;
}

int Server::OpenSessions() const {
    return state_->shared.open;
}

int Server::UncleanCount() const {
    return state_->shared.unclean;
}

int Server::QuitCount() const {
    return state_->shared.quits;
}

} // namespace rehearsal
