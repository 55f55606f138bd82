// The commands of vondral-nightly. Each Declare function adds the command's options and returns the action to run once
// they are parsed. An action returns an exit status or throws Failure.

#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace nightly {

using Action = std::function<int()>;

// `configs` is the directory of the configurations, set when the options are parsed.
Action DeclareConfig(CLI::App& command, const std::string& configs);
Action DeclareRun(CLI::App& command, const std::string& configs);
Action DeclarePrune(CLI::App& command, const std::string& configs);
Action DeclareStatus(CLI::App& command, const std::string& configs);
Action DeclareFind(CLI::App& command, const std::string& configs);
Action DeclarePlan(CLI::App& command, const std::string& configs);
Action DeclareRestore(CLI::App& command, const std::string& configs);
Action DeclareDiff(CLI::App& command, const std::string& configs);
Action DeclareHistory(CLI::App& command, const std::string& configs);
Action DeclareCheck(CLI::App& command, const std::string& configs);
Action DeclareDrill(CLI::App& command, const std::string& configs);
Action DeclareReindex(CLI::App& command, const std::string& configs);

} // namespace nightly
