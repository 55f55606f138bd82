#include "options.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include <CLI/CLI.hpp>

#include "text.h"

namespace tls {

namespace {

constexpr std::uint16_t ExplicitPort = 21;
constexpr std::uint16_t ImplicitPort = 990;

// HOST or HOST:PORT
void SetServer(const std::string& text, ServerSettings& server) {
    const std::size_t colon = std::min(text.find(':'), text.size());
    server.host = text.substr(0, colon);
    server.port = server.implicit ? ImplicitPort : ExplicitPort;
    if (colon < text.size()) {
        const auto port = ParseNumber<std::uint16_t>(std::string_view(text).substr(colon + 1));
        if (!port || *port == 0)
            throw CLI::ValidationError("--server", "not HOST or HOST:PORT: " + text);
        server.port = *port;
    }
    if (server.host.empty())
        throw CLI::ValidationError("--server", "HOST is missing");
}

void CheckTogether(const CLI::App& app, const Options& options) {
    for (const std::string& pin : options.tls.pins)
        if (!IsPin(pin))
            throw CLI::ValidationError("--pin", "not sha256// and 44 characters of base64: " + pin);
    if (options.check && !options.command.empty())
        throw CLI::ValidationError("--check", "runs no COMMAND");
    if (options.json && !options.check)
        throw CLI::ValidationError("--json", "goes with --check");
    if (app.count("--key") > 0 && app.count("--cert") == 0)
        throw CLI::ValidationError("--key", "goes with --cert");
    if (options.server.keep_alive < 1 || options.server.keep_alive > 32767)
        throw CLI::ValidationError("--keep-alive", "must be from 1 to 32767");
}

void AddOptions(CLI::App& app, Options& options, std::string& server, std::string& min_tls) {
    app.add_option("--server", server, "the FTP server to connect to")->option_text("HOST[:PORT]")->required();
    app.add_option("--listen", options.listen, "loopback address to listen on")->option_text("ADDRESS[:PORT]");
    app.add_flag("--implicit", options.server.implicit, "TLS from the start (port 990), without AUTH");
    app.add_option("--ca", options.tls.ca, "trust the certificates in this file and no others")->option_text("FILE");
    app.add_option("--pin", options.tls.pins, "the server's key must be this one; may be repeated")
        ->option_text("sha256//...")
        ->allow_extra_args(false);
    app.add_option("--name", options.tls.name, "the name that the certificate must be for, instead of HOST")
        ->option_text("NAME");
    app.add_option("--cert", options.tls.certificate, "client certificate to show")->option_text("FILE");
    app.add_option("--key", options.tls.key, "its key, when that is not in the same file")->option_text("FILE");
    app.add_option("--min-tls", min_tls, "oldest version of TLS: 1.2 or 1.3")
        ->option_text("VERSION")
        ->check(CLI::IsMember({"1.2", "1.3"}));
    app.add_option("--keep-alive", options.server.keep_alive,
                   "ask after so many silent seconds whether the server is still there")
        ->option_text("SECONDS");
    app.add_flag("--accept-missing-close-notify", options.accept_missing_close_notify,
                 "for servers that end data connections without it; see vondral-tls(1) for what it costs");
    app.add_option("--prometheus", options.prometheus, "write a gauge of the certificate's expiry")
        ->option_text("FILE");
    app.add_flag("--check", options.check, "show protocol, cipher and certificate, and leave");
    app.add_flag("--json", options.json, "the same as JSON");
    app.add_flag("-v,--verbose", options.verbose, "log sessions, commands and transfers");
    app.add_option("command", options.command, "command to run; the relay's address replaces each {}")
        ->option_text("COMMAND...");
}

} // namespace

std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CLI::App app("Relays plain FTP from this machine to a server over TLS.", "vondral-tls");
    app.set_version_flag("--version", VONDRAL_TLS_VERSION);
    app.positionals_at_end();
    std::string server;
    std::string min_tls = "1.2";
    AddOptions(app, options, server, min_tls);
    try {
        app.parse(argc, argv);
        SetServer(server, options.server);
        if (options.tls.name.empty())
            options.tls.name = options.server.host;
        options.tls.min_version = min_tls == "1.3" ? TLS1_3_VERSION : TLS1_2_VERSION;
        CheckTogether(app, options);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "vondral-tls: %s (see --help)\n", MaskControls(error.what()).c_str());
        return BadUsage;
    }
    return std::nullopt;
}

} // namespace tls
