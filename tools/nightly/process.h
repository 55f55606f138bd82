// Child processes: vondral and the hooks. A request to end this program is passed on to the child.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace nightly {

struct Command {
    std::vector<std::string> arguments;             // the program first, found by its path
    std::string output;                             // file that gets standard output and error; "" leaves them
    std::map<int, std::string> files;               // further descriptors, opened for writing
    std::map<std::string, std::string> environment; // in addition to our own
    double limit = 0;                               // seconds until the child and its children are killed, 0 for none
    std::function<void()> tick;                     // called a few times a second while it runs; may be empty
    bool heeds_stop = true;                         // a request to stop is passed on to it
    int lock = -1; // descriptor that the child inherits: the lock lasts as long as it runs
};

// Runs the command to its end. Returns its exit status as a shell shows it: 128 + N after signal N, 127 when it cannot
// be started.
int RunCommand(const Command& command);

// From now on SIGTERM and SIGINT no longer end this program: they go to the running child, and StopRequested() returns
// true.
void CatchStopRequests();
bool StopRequested();

// The path of a program of this suite: beside this program, or else along PATH. Throws Failure.
std::string FindProgram(const std::string& name);

// Waits for so many seconds, or until a request to stop.
void Pause(std::int64_t seconds);

} // namespace nightly
