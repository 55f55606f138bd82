// vondral-rehearsal: serves a directory tree as an IBM i FTP server until SIGTERM or SIGINT.

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>

#include <pthread.h>

#include "rehearsal.h"
#include "text.h"

namespace {

constexpr int BadUsage = 2;

constexpr char Usage[] = "usage: vondral-rehearsal --root DIR [options]\n"
                         "Serves the directory tree DIR as an IBM i FTP server, for rehearsals.\n"
                         "\n"
                         "  --root DIR       the tree to serve (required)\n"
                         "  --sample         fill DIR, which must be empty, with a small sample server first\n"
                         "  --address A      IPv4 address to listen on (127.0.0.1)\n"
                         "  --port N         port to listen on, 0 for any free one (21)\n"
                         "  --user NAME      the one user (%s)\n"
                         "  --password TEXT  the user's password (%s)\n"
                         "  --release VxRyMz the release to report (%s)\n"
                         "  --capitals       send replies in upper case\n"
                         "  --locked PATH    an object that saves and restores cannot get at; can be given again\n"
                         "  --help           this text\n";

struct Arguments {
    rehearsal::Options options;
    bool sample = false;
    bool help = false;
};

struct UsageError {
    std::string text;
};

std::uint16_t ParsePort(const std::string& text) {
    const auto port = ParseNumber<std::uint16_t>(text);
    if (!port)
        throw UsageError{"not a port: " + text};
    return *port;
}

void SetValue(Arguments& arguments, const std::string& name, const std::string& value) {
    rehearsal::Options& options = arguments.options;
    if (name == "--root")
        options.root = value;
    else if (name == "--address")
        options.address = value;
    else if (name == "--port")
        options.port = ParsePort(value);
    else if (name == "--user")
        options.user = value;
    else if (name == "--password")
        options.password = value;
    else if (name == "--release")
        options.release = value;
    else if (name == "--locked")
        options.locked.insert(value);
    else
        throw UsageError{"unknown option: " + name};
}

Arguments ParseArguments(int argc, char** argv) {
    Arguments arguments;
    arguments.options.port = 21;
    arguments.options.record = false; // nobody would read it
    for (int index = 1; index < argc; index++) {
        const std::string name = argv[index];
        if (name == "--sample")
            arguments.sample = true;
        else if (name == "--help")
            arguments.help = true;
        else if (name == "--capitals")
            arguments.options.capitals = true;
        else if (!name.starts_with("--") || index + 1 == argc)
            throw UsageError{(name.starts_with("--") ? "value missing or unknown option: " : "unexpected: ") + name};
        else
            SetValue(arguments, name, argv[++index]);
    }
    if (arguments.options.root.empty() && !arguments.help)
        throw UsageError{"--root is required"};
    return arguments;
}

int Serve(const Arguments& arguments) {
    // Before the first thread exists, so that sigwait below receives them.
    sigset_t ends{};
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    const rehearsal::Options& options = arguments.options;
    if (arguments.sample && !std::filesystem::is_empty(options.root))
        throw UsageError{"--sample wants an empty directory: " + options.root.string()};
    if (arguments.sample)
        rehearsal::MakeSample(options.root);
    const rehearsal::Server server(options);
    std::printf("vondral-rehearsal: listening on %s:%d, root %s\n", options.address.c_str(), server.Port(),
                options.root.c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Arguments arguments = ParseArguments(argc, argv);
        const rehearsal::Options defaults;
        if (!arguments.help)
            return Serve(arguments);
        std::printf(Usage, defaults.user.c_str(), defaults.password.c_str(), defaults.release.c_str());
        return 0;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "vondral-rehearsal: %s\n", error.text.c_str());
        return BadUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vondral-rehearsal: %s\n", error.what());
        return 1;
    }
}
