// The relay: a listening socket on a loopback address, and a thread for each session. The functions of Relay belong to
// one thread.

#pragma once

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include "session.h"

namespace tls {

// Where the relay listens. Both throw RelayError.
//
// `place` is ADDRESS or ADDRESS:PORT, and the address one of 127.0.0.0/8; port 21 when none is given, 0 for any.
Descriptor ListenOn(const std::string& place);
// At a free loopback address, port 21.
Descriptor ListenAnywhere();
// The socket that the service manager has opened (LISTEN_FDS); a descriptor that is not open when there is none. Throws
// when it is not a listening socket of a loopback address. Call before any thread exists.
Descriptor InheritedListener();

std::string FormatAddress(const sockaddr_in& address); // 127.0.0.5

class Relay {
public:
    Relay(RelayState& state, Descriptor listener);
    ~Relay(); // ends every session and waits for its thread
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    const Descriptor& Listener() const { return listener_; }

private:
    struct RunningSession {
        Session session;
        std::atomic<bool> ended = false;
        std::thread thread;
        RunningSession(RelayState& state, Descriptor client, int number) : session(state, std::move(client), number) {}
    };

    void Accept();
    void Start(Descriptor client);
    void RemoveEndedSessions();

    RelayState& state_;
    Descriptor listener_;
    Descriptor wake_; // an event: stop accepting
    std::atomic<bool> ending_ = false;
    int accepted_ = 0;
    std::list<RunningSession> sessions_; // changed by the accepting thread; after its end, by the destructor
    std::thread accepting_;
};

} // namespace tls
