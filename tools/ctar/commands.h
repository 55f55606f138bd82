// The commands of ctar. Each declares its options and gives what runs once they are parsed; that gives an exit status,
// or throws Failure (messages.h).

#pragma once

#include <functional>

namespace CLI {
class App;
}

constexpr int AllWell = 0;
constexpr int NotSound = 1;   // the archive has faults, differs, lacks what was asked for, or lost something
constexpr int CannotWork = 2; // bad usage, or something that cannot be opened, read or written

using Action = std::function<int()>;

Action DeclareList(CLI::App& command);
Action DeclareVerify(CLI::App& command);
Action DeclareSum(CLI::App& command);
Action DeclareExtract(CLI::App& command);
Action DeclareSalvage(CLI::App& command);
Action DeclareExport(CLI::App& command);
