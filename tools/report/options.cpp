#include "options.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <vector>

#include <CLI/CLI.hpp>

#include "display.h"

namespace {

// NAME=VALUE as a label of a gauge, and its name among those `taken`. Throws what CLI11 reports when it cannot be one.
std::string GaugeLabel(const std::string& pair, std::set<std::string>& taken) {
    const std::size_t equals = pair.find('=');
    const std::string name = pair.substr(0, equals);
    const auto is_word = [](char c) { return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (equals == std::string::npos || name.empty() || !is_word(name.front()) ||
        !std::ranges::all_of(name, [&](char c) { return is_word(c) || is_digit(c); }))
        throw CLI::ValidationError("--label", "NAME=VALUE, the name of letters, digits and _: " + pair);
    if (name.starts_with("__") || !taken.insert(name).second)
        throw CLI::ValidationError("--label", "the name " + name + " is taken");
    const std::string value = pair.substr(equals + 1);
    if (VisibleText(value) != value)
        throw CLI::ValidationError("--label", "a value is UTF-8 without control characters: " + pair);
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
    CLI::App app("Reads the log of a vondral run, passes it on, and tells what it says.", "vondral-report");
    app.set_version_flag("--version", REPORT_VERSION);
    app.add_option("log", options.log, "the log (standard input)")->option_text("FILE");
    app.add_option("--html", options.html, "write a page about the run")->option_text("FILE");
    app.add_option("--json", options.json, "write records, one a line; - is standard output instead of the log")
        ->option_text("FILE");
    app.add_option("--prometheus", options.prometheus, "write gauges for node_exporter")->option_text("FILE");
    std::vector<std::string> labels;
    app.add_option("--label", labels, "a label for the gauges: NAME=VALUE; may be repeated")
        ->option_text("NAME=VALUE")
        ->allow_extra_args(false);
    app.add_option("--against", options.against, "compare with the log of an earlier run")->option_text("OLDLOG");
    app.add_option("--every", options.every, "a plain line of progress each interval: 60, 60s, 5m, 1h")
        ->option_text("TIME")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}}));
    app.add_flag("--fail", options.fail, "end with 3 unless the run is complete and nothing failed");
    app.add_flag("--no-log", options.no_log, "do not pass the log on");
    app.add_flag("--quiet", options.quiet, "neither progress nor a closing summary");
    try {
        app.parse(argc, argv);
        std::set<std::string> taken{"status"};
        for (const std::string& pair : labels)
            options.labels += (options.labels.empty() ? "" : ",") + GaugeLabel(pair, taken);
        constexpr double longest = 7 * 86400; // seconds
        if (app.count("--every") > 0 && !(options.every >= 1 && options.every <= longest))
            throw CLI::ValidationError("--every", "from one second to a week");
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "vondral-report: %s (see --help)\n", TerminalText(error.what()).c_str());
        return BadUsage;
    }
    return std::nullopt;
}
