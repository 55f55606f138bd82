#include "options.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <vector>

#include <CLI/CLI.hpp>

#include "display.h"
#include "text.h"

namespace report {

namespace {

// The label of a gauge for NAME=VALUE; adds the name to those `used`. Throws CLI::ValidationError when it is not a
// valid label.
std::string GaugeLabel(const std::string& pair, std::set<std::string>& used) {
    const std::size_t equals = pair.find('=');
    const std::string name = pair.substr(0, equals);
    const auto is_word = [](char c) { return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (equals == std::string::npos || name.empty() || !is_word(name.front()) ||
        !std::ranges::all_of(name, [&](char c) { return is_word(c) || IsDigit(c); }))
        throw CLI::ValidationError("--label", "NAME has letters, digits and _ only: " + pair);
    if (name.starts_with("__") || !used.insert(name).second)
        throw CLI::ValidationError("--label", "the name " + name + " is already in use");
    const std::string value = pair.substr(equals + 1);
    if (VisibleText(value) != value)
        throw CLI::ValidationError("--label", "VALUE must be UTF-8 without control characters: " + pair);
    std::string label = name + "=\"";
    for (const char c : value) {
        if (c == '"' || c == '\\')
            label += '\\';
        label += c;
    }
    return label + '"';
}

} // namespace

std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CLI::App app("Reads the log of a vondral run, passes it on, and reports on the run.", "vondral-report");
    app.set_version_flag("--version", REPORT_VERSION);
    app.add_option("log", options.log, "the log; without it, standard input")->option_text("FILE");
    app.add_option("--html", options.html, "write a page about the run")->option_text("FILE");
    app.add_option("--json", options.json,
                   "write one record per line; - writes them to standard output instead of the log")
        ->option_text("FILE");
    app.add_option("--prometheus", options.prometheus, "write gauges for node_exporter")->option_text("FILE");
    std::vector<std::string> labels;
    app.add_option("--label", labels, "add a label to the gauges; may be repeated")
        ->option_text("NAME=VALUE")
        ->allow_extra_args(false);
    app.add_option("--against", options.against, "compare with the log of an earlier run")->option_text("OLDLOG");
    app.add_option("--server", options.server, "name the server in the outputs")->option_text("NAME");
    app.add_option("--night", options.night, "name the night in the outputs")->option_text("NAME");
    app.add_option("--archive", options.archive,
                   "name the archive in the outputs; watch the file grow while the run goes on")
        ->option_text("FILE");
    app.add_option("--every", options.every, "print a line of progress at this interval: 60, 60s, 5m, 1h")
        ->option_text("TIME")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}}));
    app.add_flag("--fail", options.fail, "exit with 3 unless the run is complete and nothing failed");
    app.add_flag("--no-log", options.no_log, "do not pass the log on");
    app.add_flag("--quiet", options.quiet, "print neither progress nor a summary");
    try {
        app.parse(argc, argv);
        std::set<std::string> used{"status"};
        for (const std::string& pair : labels)
            options.labels += (options.labels.empty() ? "" : ",") + GaugeLabel(pair, used);
        constexpr double longest = 7 * 86400; // seconds
        if (app.count("--every") > 0 && !(options.every >= 1 && options.every <= longest))
            throw CLI::ValidationError("--every", "must be from one second to a week");
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "vondral-report: %s (see --help)\n", TerminalText(error.what()).c_str());
        return BadUsage;
    }
    return std::nullopt;
}

} // namespace report
