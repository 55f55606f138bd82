// vondral-rehearsal: serves a directory tree as an IBM i FTP server until SIGTERM or SIGINT.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include <pthread.h>

#include "option_values.h"
#include "rehearsal.h"

namespace {

using rehearsal::Options;
using rehearsal::UsageError;

constexpr int BadUsage = 2;
constexpr int CannotServe = 1;

constexpr char Usage[] =
    "usage: vondral-rehearsal --root DIR [options]\n"
    "Serves the directory tree DIR as an IBM i FTP server, for rehearsals.\n"
    "\n"
    "  --root DIR         the tree to serve (required)\n"
    "  --sample           fill DIR, which must be empty, with a small sample server first\n"
    "  --address A        IPv4 address to listen on (127.0.0.1)\n"
    "  --port N           port to listen on, 0 for any free one (21)\n"
    "  --passive-address A  the address in replies to PASV\n"
    "  --user NAME        the only user (%s)\n"
    "  --password TEXT    the user's password (%s)\n"
    "  --release VxRyMz   the release to report (%s)\n"
    "  --capitals         send replies in upper case\n"
    "  --tls-cert FILE    demand TLS (AUTH TLS), with the certificates in FILE; needs --tls-key\n"
    "  --tls-key FILE     the key of the certificate\n"
    "  --tls-implicit     TLS from the start, without AUTH\n"
    "  --tls-client-ca FILE  demand a client certificate of the authority in FILE\n"
    "  --tls-require-resumption  refuse data connections that do not resume the TLS session\n"
    "  --tls-max VERSION  1.2: no TLS 1.3\n"
    "  --help             print this text\n"
    "  --version          print the version\n"
    "\n"
    "A bad night (--locked, --busy and --fault can be given again):\n"
    "  --locked PATH      an object that can be neither saved nor restored\n"
    "  --busy PATH        an object in use: it cannot be saved, but can be restored\n"
    "  --save-rate N      a save command takes a second for every N bytes of its save file\n"
    "  --transfer-rate N  a data connection transfers N bytes a second\n"
    "  --fault 'KIND COMMAND [NAME=VALUE]...'\n"
    "                     something goes wrong with a command line that begins with COMMAND, or with the greeting\n"
    "                     when COMMAND is \"greeting\"\n"
    "N is a number of bytes, or of k (1024), M or G bytes.\n"
    "\n"
    "Kinds of faults, and the values that they use:\n"
    "  replace text=            send this reply, without running the command\n"
    "  pieces cuts= pause=      send the reply in pieces that end at these offsets (cuts=1,20)\n"
    "  close bytes=             close the connection after so many bytes of the reply (0)\n"
    "  reset bytes=             the same with a reset\n"
    "  close-after              close the connection after the reply\n"
    "  silent pause=            never reply; close the connection after the pause, if given\n"
    "  flood text= pause=       send text until the client leaves; default: a continuation line of the reply\n"
    "  data-refuse              let the port in the reply to PASV refuse connections\n"
    "  data-close bytes=        close the data connection of LIST, RETR or STOR after so many bytes (0)\n"
    "  data-reset bytes=        the same with a reset\n"
    "  data-silent bytes=       send nothing more after so many bytes\n"
    "  data-cut-record bytes=   close it within the TLS record that begins after so many bytes\n"
    "  data-no-notify           end it without the close_notify of TLS\n"
    "  data-no-resume           do not resume the TLS session on it\n"
    "All kinds use nth= (which such command: 1, the default, is the first; 0 is every one). Those that concern a\n"
    "reply use reply= (of LIST, RETR and STOR: 0, the default, is the preliminary one; 1 the final one). pause= is in\n"
    "milliseconds. A value with blanks must be in double quotes, in which \\r, \\n, \\\" and \\\\ can be used.\n";

struct Arguments {
    Options options;
    bool help = false, version = false;
};

struct ValueOption {
    const char* name;
    void (*set)(Options& options, const std::string& value);
};

constexpr ValueOption ValueOptions[] = {
    {"--root", [](Options& options, const std::string& value) { options.root = value; }},
    {"--address", [](Options& options, const std::string& value) { options.address = rehearsal::ParseAddress(value); }},
    {"--port", [](Options& options, const std::string& value) { options.port = rehearsal::ParsePort(value); }},
    {"--user", [](Options& options, const std::string& value) { options.user = value; }},
    {"--password", [](Options& options, const std::string& value) { options.password = value; }},
    {"--release", [](Options& options, const std::string& value) { options.release = value; }},
    {"--locked",
     [](Options& options, const std::string& value) { options.locked.insert(rehearsal::ParsePath(value)); }},
    {"--busy", [](Options& options, const std::string& value) { options.busy.insert(rehearsal::ParsePath(value)); }},
    {"--passive-address",
     [](Options& options, const std::string& value) { options.passive_address = rehearsal::ParseAddress(value); }},
    {"--tls-cert", [](Options& options, const std::string& value) { options.tls.certificate = value; }},
    {"--tls-key", [](Options& options, const std::string& value) { options.tls.key = value; }},
    {"--tls-max",
     [](Options& options, const std::string& value) {
         options.tls.only_1_2 = value == "1.2";
         if (value != "1.2" && value != "1.3")
             throw UsageError{"not 1.2 or 1.3: " + value};
     }},
    {"--tls-client-ca", [](Options& options, const std::string& value) { options.tls.client_ca = value; }},
    {"--save-rate",
     [](Options& options, const std::string& value) { options.save_rate = rehearsal::ParseBytes(value); }},
    {"--transfer-rate",
     [](Options& options, const std::string& value) { options.transfer_rate = rehearsal::ParseBytes(value); }},
    {"--fault",
     [](Options& options, const std::string& value) { options.faults.push_back(rehearsal::ParseFault(value)); }},
};

bool SetSwitch(Arguments& arguments, const std::string& name) {
    if (name == "--sample")
        arguments.options.sample = true;
    else if (name == "--capitals")
        arguments.options.capitals = true;
    else if (name == "--tls-implicit")
        arguments.options.tls.implicit = true;
    else if (name == "--tls-require-resumption")
        arguments.options.tls.require_resumption = true;
    else if (name == "--help")
        arguments.help = true;
    else if (name == "--version")
        arguments.version = true;
    else
        return false;
    return true;
}

void SetValue(Options& options, const std::string& name, const char* value) {
    const auto* const option = std::find_if(std::begin(ValueOptions), std::end(ValueOptions),
                                            [&](const ValueOption& each) { return each.name == name; });
    if (option == std::end(ValueOptions))
        throw UsageError{"unknown option: " + name};
    if (!value)
        throw UsageError{name + ": value missing"};
    try {
        option->set(options, value);
    } catch (const UsageError& error) {
        throw UsageError{name + ": " + error.text};
    }
}

Arguments ParseArguments(int argc, char** argv) {
    Arguments arguments;
    arguments.options.port = 21;
    arguments.options.record = false; // nobody would read it
    for (int index = 1; index < argc; index++)
        if (!SetSwitch(arguments, argv[index])) {
            SetValue(arguments.options, argv[index], argv[index + 1]); // argv ends with a null pointer
            index++;
        }
    if (arguments.options.root.empty() && !arguments.help && !arguments.version)
        throw UsageError{"--root is required"};
    const rehearsal::TlsOptions& tls = arguments.options.tls;
    if (tls.certificate.empty() != tls.key.empty())
        throw UsageError{"--tls-cert and --tls-key belong together"};
    if (tls.certificate.empty() && (tls.implicit || tls.require_resumption || tls.only_1_2 || !tls.client_ca.empty()))
        throw UsageError{"the options of TLS need --tls-cert"};
    return arguments;
}

void CheckRoot(const Options& options) {
    const std::string name = options.root.string();
    std::error_code error;
    if (!std::filesystem::is_directory(options.root, error))
        throw std::runtime_error("--root " + name + ": " + (error ? error.message() : "not a directory"));
    if (options.sample && !std::filesystem::is_empty(options.root))
        throw std::runtime_error("--sample needs an empty directory: " + name);
}

int Serve(const Options& options) {
    // Before the first thread exists, so that sigwait below receives them.
    sigset_t ends{};
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    CheckRoot(options);
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
        const Options defaults;
        if (arguments.version)
            return std::puts(REHEARSAL_VERSION) < 0 ? CannotServe : 0;
        if (!arguments.help)
            return Serve(arguments.options);
        std::printf(Usage, defaults.user.c_str(), defaults.password.c_str(), defaults.release.c_str());
        return 0;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "vondral-rehearsal: %s\n", error.text.c_str());
        return BadUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vondral-rehearsal: %s\n", error.what());
        return CannotServe;
    }
}
