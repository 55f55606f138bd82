#include "options.h"

#include <map>

#include <CLI/CLI.hpp>

std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CLI::App app("Reads the log of a vondral run, passes it on, and tells what it says.", "vondral-report");
    app.set_version_flag("--version", REPORT_VERSION);
    app.add_option("log", options.log, "the log (standard input)")->option_text("FILE");
    app.add_option("--html", options.html, "write a page about the run")->option_text("FILE");
    app.add_option("--json", options.json, "write records, one a line; - is standard output instead of the log")
        ->option_text("FILE");
    app.add_option("--prometheus", options.prometheus, "write gauges for node_exporter")->option_text("FILE");
    app.add_option("--against", options.against, "compare with the log of an earlier run")->option_text("OLDLOG");
    app.add_option("--every", options.every, "a plain line of progress each interval: 60, 60s, 5m, 1h")
        ->option_text("TIME")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}}));
    app.add_flag("--fail", options.fail, "end with 3 unless the run is complete and nothing failed");
    app.add_flag("--no-log", options.no_log, "do not pass the log on");
    app.add_flag("--quiet", options.quiet, "neither progress nor a closing summary");
    try {
        app.parse(argc, argv);
        constexpr double longest = 7 * 86400; // seconds
        if (app.count("--every") > 0 && !(options.every >= 1 && options.every <= longest))
            throw CLI::ValidationError("--every", "from one second to a week");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? Done : BadUsage;
    }
    return std::nullopt;
}
