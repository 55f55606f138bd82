// ctar list: what is in an archive.

#include "commands.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <fnmatch.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "entry.h"
#include "messages.h"

namespace ctar {

namespace {

struct ListOptions {
    std::string archive;
    std::vector<std::string> patterns; // empty: all entries
    bool json = false;
};

bool IsWanted(const ListOptions& options, const Entry& entry) {
    for (const std::string& pattern : options.patterns)
        if (::fnmatch(pattern.c_str(), entry.name.c_str(), 0) == 0 ||
            ::fnmatch(pattern.c_str(), entry.Path().c_str(), 0) == 0)
            return true;
    return options.patterns.empty();
}

void PrintJson(const Entry& entry) {
    const nlohmann::ordered_json line{
        {"offset", entry.offset}, {"size", entry.size},           {"mtime", entry.mtime},      {"mode", entry.mode},
        {"kind", KindOf(entry)},  {"path", Escape(entry.Path())}, {"name", Escape(entry.name)}};
    std::printf("%s\n", line.dump().c_str());
}

void PrintLine(const Entry& entry) {
    std::tm time{};
    ::localtime_r(&entry.mtime, &time);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &time);
    const std::string path = entry.Path();
    const std::string rest = entry.name.substr(path.size());
    std::printf("%12lld %12lld  %s  %-13s  %s%s\n", static_cast<long long>(entry.offset),
                static_cast<long long>(entry.size), text.data(), KindOf(entry), Escape(path).c_str(),
                rest.empty() ? "" : (" [" + Escape(rest) + "]").c_str());
}

int List(const ListOptions& options) {
    Input input(options.archive, Access::Forward);
    const ChainEnd end = WalkEntries(input, [&options](const Entry& entry, const CtarBlock&) {
        if (IsWanted(options, entry))
            (options.json ? PrintJson : PrintLine)(entry);
    });
    return ReportChainEnd(input, end);
}

} // namespace

Action DeclareList(CLI::App& command) {
    static ListOptions options;
    command.add_option("ARCHIVE", options.archive, "the archive, - for standard input")->required();
    command.add_option("PATTERN", options.patterns,
                       "show only names that match one of these shell patterns (* matches / too)");
    command.add_flag("--json", options.json, "JSON, one entry per line");
    return [] { return List(options); };
}

} // namespace ctar
