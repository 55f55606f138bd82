// ctar export: the save files as a pax tar archive on standard output.

#include "commands.h"

#include <string>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "entry.h"
#include "tar.h"
#include "text.h"

namespace {

constexpr unsigned Permissions = 0755; // of an object's mode: nobody else need write to what is a save file here

// The path below wherever the tar archive is unpacked: never absolute, never upwards. All end in the suffix, so that a
// directory that was saved whole and a file saved from inside it do not get in each other's way.
std::string TarNameFor(const Entry& entry) {
    std::string name, rest = entry.Path() + "/";
    for (std::size_t slash; (slash = rest.find('/')) != rest.npos; rest.erase(0, slash + 1)) {
        const std::string part = rest.substr(0, slash);
        if (!part.empty() && part != "." && part != "..")
            name += (name.empty() ? "" : "/") + part;
    }
    return (name.empty() ? "entry-" + std::to_string(entry.offset) : name) + std::string(NameSuffix);
}

void Add(TarWriter& tar, Input& input, const Entry& entry) {
    tar.Begin(TarNameFor(entry), entry.mode & Permissions, entry.mtime, entry.size);
    const Sink sink = [&tar](std::span<const char> bytes) {
        tar.Add(bytes);
        return true;
    };
    // Only a pipe comes to this: of a file it is known before.
    if (ReadData(input, entry, sink) < entry.size)
        throw Failure(input.Name() + ": " + OffsetText(input.Offset()) + ": ends inside " + Escape(entry.name));
}

int Export(const std::string& archive) {
    if (::isatty(STDOUT_FILENO) != 0)
        throw Failure("standard output: is a terminal, and a tar archive is no text");
    Input input(archive, Access::Forward);
    TarWriter tar;
    const ChainEnd end = WalkEntries(input, [&](const Entry& entry, const CtarBlock&) { Add(tar, input, entry); });
    tar.Close();
    return JudgeChainEnd(input, end);
}

} // namespace

Action DeclareExport(CLI::App& command) {
    static std::string archive;
    command.add_option("ARCHIVE", archive, "the archive, - for standard input")->required();
    return [] { return Export(archive); };
}
