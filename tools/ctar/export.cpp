// ctar export: the save files as a pax tar archive on standard output.

#include "commands.h"

#include <string>
#include <unordered_set>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "digest.h"
#include "entry.h"
#include "messages.h"
#include "tar.h"

namespace ctar {

namespace {

constexpr unsigned Permissions =
    0755; // kept of an entry's mode; write access for others makes no sense for a save file

constexpr std::size_t LongestPart = 255; // bytes in a part of a path that file systems accept

using UsedNames = std::unordered_set<std::uint64_t>; // ShortDigest of each

// The path within the tar archive: never absolute, never upwards. Every path ends in the suffix, so that a directory
// saved whole and a file saved from inside it do not collide. The entry's offset is added to a last part that is cut,
// or to a name already used.
std::string TarNameFor(const Entry& entry, UsedNames& used) {
    const std::string mark = "-" + std::to_string(entry.offset);
    std::string directory, last, rest = entry.Path() + "/";
    for (std::size_t slash; (slash = rest.find('/')) != rest.npos; rest.erase(0, slash + 1)) {
        const std::string part = rest.substr(0, slash);
        if (part.empty() || part == "." || part == "..")
            continue;
        directory += last.empty() ? "" : last.substr(0, LongestPart) + "/";
        last = part;
    }
    std::string tail(NameSuffix);
    if (last.empty())
        last = "entry" + mark;
    if (last.size() + tail.size() > LongestPart)
        tail = mark + tail;
    for (;;) {
        const std::string name = directory + last.substr(0, LongestPart - tail.size()) + tail;
        if (used.insert(ShortDigest(name)).second)
            return name;
        tail = mark + tail;
    }
}

// Returns false when the data are cut short, which only a pipe does not tell beforehand.
bool ExportEntry(TarWriter& tar, UsedNames& used, Input& input, const Entry& entry) {
    tar.BeginFile(TarNameFor(entry, used), entry.mode & Permissions, entry.mtime, entry.size);
    const Sink sink = [&tar](std::span<const char> bytes) {
        tar.Write(bytes);
        return true;
    };
    return ReadData(input, entry, sink) == entry.size;
}

int Export(const std::string& archive) {
    if (::isatty(STDOUT_FILENO) != 0)
        throw Failure("standard output is a terminal; refusing to write a tar archive to it");
    Input input(archive, Access::Forward);
    TarWriter tar;
    UsedNames used;
    bool is_whole = true;
    const ChainEnd end = WalkEntries(
        input, [&](const Entry& entry, const CtarBlock&) { is_whole = ExportEntry(tar, used, input, entry); });
    if (is_whole)
        tar.Close();
    return ReportChainEnd(input, end);
}

} // namespace

Action DeclareExport(CLI::App& command) {
    static std::string archive;
    command.add_option("ARCHIVE", archive, "the archive, - for standard input")->required();
    return [] { return Export(archive); };
}

} // namespace ctar
