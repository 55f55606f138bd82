// ctar sum

#include <cstdio>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "digest.h"
#include "entry.h"
#include "sum_lines.h"

namespace ctar {

namespace {

int Sum(const std::string& archive) {
    Input input(archive, Access::Forward);
    const ChainEnd end = WalkEntries(input, [&input](const Entry& entry, const CtarBlock&) {
        Digest digest;
        const Sink add = [&digest](std::span<const char> bytes) {
            digest.Add(bytes);
            return true;
        };
        if (ReadData(input, entry, add) == entry.size)
            std::fputs(FormatSumLine({digest.Hex(), entry.offset, entry.size, entry.name}).c_str(), stdout);
    });
    return ReportChainEnd(input, end);
}

} // namespace

Action DeclareSum(CLI::App& command) {
    static std::string archive;
    command.add_option("ARCHIVE", archive, "the archive, - for standard input")->required();
    return [] { return Sum(archive); };
}

} // namespace ctar
