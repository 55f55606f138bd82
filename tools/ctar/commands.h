// The commands of ctar. Each Declare function adds the command's options to `command` and returns the action to run
// once they are parsed. The action returns an exit status or throws Failure (messages.h).

#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace ctar {

constexpr int ExitSuccess = 0;
constexpr int ExitFaults = 1; // the archive has faults, differs, lacks the entry asked for, or lost something
constexpr int ExitError = 2;  // bad usage, or something cannot be opened, read or written

using Action = std::function<int()>;

Action DeclareList(CLI::App& command);
Action DeclareVerify(CLI::App& command);
Action DeclareSum(CLI::App& command);
Action DeclareExtract(CLI::App& command);
Action DeclareSalvage(CLI::App& command);
Action DeclareExport(CLI::App& command);

} // namespace ctar
