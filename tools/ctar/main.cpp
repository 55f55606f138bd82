// ctar: looks after CTAR archives without a server.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <fcntl.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "messages.h"
#include "resources.h"

namespace ctar {

namespace {

struct Command {
    const char* name;
    const char* help;
    Action (*declare)(CLI::App& command);
};

constexpr Command Commands[] = {
    {"list", "show the entries of an archive", DeclareList},
    {"verify", "look for damage, with --sums in the data too", DeclareVerify},
    {"sum", "write the SHA-256 of every entry's data", DeclareSum},
    {"extract", "write one save file", DeclareExtract},
    {"salvage", "build a sound archive from a damaged one", DeclareSalvage},
    {"export", "write the save files as a tar archive", DeclareExport},
};

int Run(int argc, char** argv) {
    CLI::App app("Looks after CTAR archives without a server. See ctar(1).", "ctar");
    app.set_version_flag("--version", CTAR_VERSION);
    app.require_subcommand(1);
    std::vector<Action> actions;
    for (const Command& command : Commands)
        actions.push_back(command.declare(*app.add_subcommand(command.name, command.help)));
    RefuseBracketed(argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        throw Failure(Escape(error.what()) + " (see --help)");
    }
    const std::vector<CLI::App*> all = app.get_subcommands(nullptr);
    for (std::size_t i = 0; i < all.size(); ++i)
        if (all[i]->parsed())
            return actions[i]();
    return ExitError;
}

} // namespace

} // namespace ctar

int main(int argc, char** argv) {
    if (!ReserveStandardDescriptors(O_RDONLY | O_CLOEXEC))
        return ctar::ExitError;
    // A reader that is gone and a file that is too large become failed writes.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    int status = ctar::ExitError;
    try {
        status = ctar::Run(argc, argv);
    } catch (const ctar::OutputFailed&) {
        return ctar::ExitError;
    } catch (const std::exception& error) {
        ctar::PrintError(error.what());
    }
    return ctar::FlushOutput() ? status : ctar::ExitError;
}
