// ctar extract: the save file of one entry.

#include "commands.h"

#include <cstdio>
#include <optional>
#include <string>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "entry.h"
#include "messages.h"
#include "output.h"

namespace ctar {

namespace {

struct ExtractOptions {
    std::string archive;
    std::string name;
    std::string output; // path, "-" for standard output, empty for one made from the entry's name
    bool force = false;
};

// A local file name made from the last part of the entry's path: without a slash, not "..", not hidden, and not one
// that looks like an option or controls a terminal.
std::string FileNameFor(const Entry& entry) {
    constexpr std::size_t longest = 200; // with the suffix it fits every file system
    const std::string path = entry.Path();
    std::string name = path.substr(path.rfind('/') + 1).substr(0, longest);
    for (char& byte : name)
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = '_';
    if (name.empty() || name == "." || name == "..")
        throw Failure(Escape(path) + ": cannot be made a file name; use -o FILE");
    if (name.front() == '.' || name.front() == '-')
        name.front() = '_';
    return name + std::string(NameSuffix);
}

struct Search {
    std::optional<Entry> found;     // the last entry of that name: a restore leaves that one on the server
    std::optional<Entry> container; // an entry that the wanted path lies inside
    int count = 0;                  // entries of that name
    int status = ExitSuccess;       // of the chain
};

Search Find(Input& input, const std::string& name) {
    Search search;
    const ChainEnd end = WalkEntries(input, [&](const Entry& entry, const CtarBlock&) {
        if (ContainsPath(entry, name))
            search.container = entry;
        if (!MatchesName(entry, name))
            return;
        search.found = entry;
        ++search.count;
    });
    search.status = ReportChainEnd(input, end);
    return search;
}

void ReportMissing(const Input& input, const std::string& name, const Search& search) {
    const std::string wanted = input.Name() + ": " + (search.container ? "" : "no entry ") + Escape(name);
    if (search.container)
        PrintError(wanted + " is inside the entry " + Escape(search.container->Path()) +
                   "; restore it with \"vondral -i\"");
    else if (search.status == ExitSuccess)
        PrintError(wanted);
    else
        PrintError(wanted + " where a restore would see it; \"ctar salvage\" may find it");
}

template <class Write>
void CopyData(Input& input, const Entry& entry, const Write& write) {
    input.Seek(entry.DataOffset());
    const Sink sink = [&write](std::span<const char> bytes) {
        write(bytes);
        return true;
    };
    if (ReadData(input, entry, sink) < entry.size)
        throw Failure(input.Name() + ": " + FormatOffset(input.Offset()) + ": the archive ends inside " +
                      Escape(entry.name));
}

void ExtractToFile(Input& input, const Entry& entry, const std::string& path, bool force) {
    if (input.IsSameFile(path))
        throw Failure(Escape(path) + ": is the archive itself");
    OutputFile file(path, force);
    CopyData(input, entry, [&file](std::span<const char> bytes) { file.Write(bytes); });
    file.Commit();
    std::printf("%s: %lld bytes to %s\n", Escape(entry.name).c_str(), static_cast<long long>(entry.size),
                Escape(path).c_str());
}

int Extract(const ExtractOptions& options) {
    const bool to_stdout = options.output == "-";
    if (to_stdout && ::isatty(STDOUT_FILENO) != 0)
        throw Failure("standard output is a terminal; refusing to write a save file to it");
    Input input(options.archive, Access::Random);
    const Search search = Find(input, options.name);
    if (!search.found) {
        ReportMissing(input, options.name, search);
        return ExitFaults;
    }
    const Entry& entry = *search.found;
    if (search.count > 1)
        PrintError(input.Name() + ": " + std::to_string(search.count) + " entries " + Escape(options.name) +
                   "; extracting the last, at " + FormatOffset(entry.offset));
    if (to_stdout)
        CopyData(input, entry,
                 [](std::span<const char> bytes) { WriteOrThrow(STDOUT_FILENO, bytes, "standard output"); });
    else
        ExtractToFile(input, entry, options.output.empty() ? FileNameFor(entry) : options.output, options.force);
    return search.status;
}

} // namespace

Action DeclareExtract(CLI::App& command) {
    static ExtractOptions options;
    command.add_option("ARCHIVE", options.archive, "the archive, a file")->required();
    command.add_option("NAME", options.name, "the entry's full path, as bytes or as \"ctar list\" shows it")
        ->required();
    command.add_option("-o,--output", options.output, "the file to write, - for standard output")->type_name("FILE");
    command.add_flag("-f,--force", options.force, "replace an existing file");
    return [] { return Extract(options); };
}

} // namespace ctar
