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

namespace {

constexpr unsigned Permissions = 0755; // of an object's mode: nobody else need write to what is a save file here

constexpr std::size_t LongestPart = 255; // bytes of a name that file systems take

using TakenNames = std::unordered_set<std::uint64_t>; // ShortDigest of each

// The path below wherever the tar archive is unpacked: never absolute, never upwards. All end in the suffix, so that a
// directory that was saved whole and a file saved from inside it do not get in each other's way. A last part that is
// cut, or that stood before already, gets the entry's offset.
std::string TarNameFor(const Entry& entry, TakenNames& taken) {
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
        if (taken.insert(ShortDigest(name)).second)
            return name;
        tail = mark + tail;
    }
}

// Whether all of the entry was there: only of a pipe is that not known before.
bool Add(TarWriter& tar, TakenNames& taken, Input& input, const Entry& entry) {
    tar.Begin(TarNameFor(entry, taken), entry.mode & Permissions, entry.mtime, entry.size);
    const Sink sink = [&tar](std::span<const char> bytes) {
        tar.Add(bytes);
        return true;
    };
    return ReadData(input, entry, sink) == entry.size;
}

int Export(const std::string& archive) {
    if (::isatty(STDOUT_FILENO) != 0)
        throw Failure("standard output: is a terminal, and a tar archive is no text");
    Input input(archive, Access::Forward);
    TarWriter tar;
    TakenNames taken;
    bool whole = true;
    const ChainEnd end =
        WalkEntries(input, [&](const Entry& entry, const CtarBlock&) { whole = Add(tar, taken, input, entry); });
    if (whole)
        tar.Close();
    return JudgeChainEnd(input, end);
}

} // namespace

Action DeclareExport(CLI::App& command) {
    static std::string archive;
    command.add_option("ARCHIVE", archive, "the archive, - for standard input")->required();
    return [] { return Export(archive); };
}
