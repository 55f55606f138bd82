// Runs the command that the relay is there for.

#pragma once

#include <string>
#include <vector>

#include <csignal>

namespace tls {

// Signals that end a job: blocked in every thread of the relay and passed on to the command.
sigset_t EndSignals();

// The words with the relay's address in place of each "{}".
std::vector<std::string> SubstituteAddress(std::vector<std::string> words, const std::string& address);

// Runs the command and waits for its end, passing end signals on to it. Returns its status, 128 + the signal that ended
// it, or 127, with `error` set, when it cannot be started. Requires: EndSignals() and SIGCHLD are blocked.
int RunCommand(const std::vector<std::string>& words, std::string& error);

} // namespace tls
