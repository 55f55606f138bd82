// vondral-nightly: a directory of nights for each server, which never loses the last good copy of anything.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "ctar/messages.h"
#include "failure.h"
#include "records.h"
#include "resources.h"
#include "subcommands.h"

namespace nightly {

namespace {

struct Subcommand {
    const char* name;
    const char* help;
    Action (*declare)(CLI::App& command, const std::string& configs);
};

constexpr Subcommand Subcommands[] = {
    {"check", "try everything that the first night needs, and save nothing", DeclareCheck},
    {"run", "save a server, judge the night, retry, and let old nights go", DeclareRun},
    {"status", "show the last good night of each server", DeclareStatus},
    {"find", "show which nights have an object", DeclareFind},
    {"plan", "show what a restore would bring back", DeclarePlan},
    {"restore", "restore a night", DeclareRestore},
    {"diff", "show what differs between two nights", DeclareDiff},
    {"history", "write a page about all nights", DeclareHistory},
    {"prune", "remove what retention lets go", DeclarePrune},
    {"drill", "restore the configured library on a spare server", DeclareDrill},
    {"reindex", "make the history anew", DeclareReindex},
    {"config", "show the effective configuration", DeclareConfig},
};

// Before the subcommand or after it.
void AddConfigDirectory(CLI::App& command, std::string& configs) {
    command.add_option("--config-dir", configs, "the directory of the configurations")->type_name("DIR");
}

int Main(int argc, char** argv) {
    static std::string configs = NIGHTLY_CONFIGS;
    CLI::App app("Keeps nights of backups of IBM i servers. See vondral-nightly(1).", "vondral-nightly");
    app.set_version_flag("--version", NIGHTLY_VERSION);
    app.require_subcommand(1);
    AddConfigDirectory(app, configs);
    std::vector<Action> actions;
    for (const Subcommand& subcommand : Subcommands) {
        CLI::App& command = *app.add_subcommand(subcommand.name, subcommand.help);
        actions.push_back(subcommand.declare(command, configs));
        AddConfigDirectory(command, configs);
    }
    ctar::RefuseBracketed(argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        throw Failure(std::string(error.what()) + " (see --help)");
    }
    const std::vector<CLI::App*> all = app.get_subcommands(nullptr);
    for (std::size_t i = 0; i < all.size(); ++i)
        if (all[i]->parsed())
            return actions[i]();
    return Trouble;
}

} // namespace

} // namespace nightly

int main(int argc, char** argv) {
    if (!ReserveStandardDescriptors(O_RDWR | O_CLOEXEC))
        return nightly::Trouble;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL); // ignored, it would take the exit statuses of children away
    ::umask(077);                  // nights contain everything that is on the server
    int status = nightly::Trouble;
    try {
        status = nightly::Main(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vondral-nightly: %s\n", nightly::Shown(error.what()).c_str());
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return status;
    std::fprintf(stderr, "vondral-nightly: standard output could not be written\n");
    return nightly::Trouble;
}
