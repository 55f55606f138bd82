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

namespace {

struct ExtractOptions {
    std::string archive;
    std::string name;
    std::string output; // path, "-" for standard output, empty for one made from the entry's name
    bool force = false;
};

// A name for a file here, made from the last part of the entry's path: no slash, no "..", nothing hidden, nothing that
// reads as an option or steers a terminal.
std::string FileNameFor(const Entry& entry) {
    constexpr std::size_t longest = 200; // with the suffix it suits every file system
    const std::string path = entry.Path();
    std::string name = path.substr(path.rfind('/') + 1).substr(0, longest);
    for (char& byte : name)
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = '_';
    if (name.empty() || name == "." || name == "..")
        throw Failure(Escape(path) + ": gives no name for a file: say -o FILE");
    if (name.front() == '.' || name.front() == '-')
        name.front() = '_';
    return name + std::string(NameSuffix);
}

// The last entry of that name: it is what a restore leaves on the server. `status` is that of the chain.
std::optional<Entry> Find(Input& input, const std::string& name, int& status) {
    std::optional<Entry> found;
    int count = 0;
    const ChainEnd end = WalkEntries(input, [&](const Entry& entry, const CtarBlock&) {
        if (!IsNamed(entry, name))
            return;
        found = entry;
        ++count;
    });
    status = JudgeChainEnd(input, end);
    if (count > 1)
        Complain(input.Name() + ": holds " + Escape(name) + " " + std::to_string(count) + " times; took the last, at " +
                 OffsetText(found->offset));
    return found;
}

template <class Write>
void CopyData(Input& input, const Entry& entry, const Write& write) {
    input.Seek(entry.DataOffset());
    const Sink sink = [&write](std::span<const char> bytes) {
        write(bytes);
        return true;
    };
    if (ReadData(input, entry, sink) < entry.size)
        throw Failure(input.Name() + ": " + OffsetText(input.Offset()) + ": ends inside " + Escape(entry.name));
}

void ToFile(Input& input, const Entry& entry, const std::string& path, bool force) {
    if (input.IsSameFile(path))
        throw Failure(Escape(path) + ": is the archive itself");
    OutputFile file(path, force);
    CopyData(input, entry, [&file](std::span<const char> bytes) { file.Write(bytes); });
    file.Commit();
    std::printf("%s: %lld bytes to %s\n", Escape(entry.name).c_str(), static_cast<long long>(entry.size),
                Escape(path).c_str());
}

int Extract(const ExtractOptions& options) {
    const bool standard = options.output == "-";
    if (standard && ::isatty(STDOUT_FILENO) != 0)
        throw Failure("standard output: is a terminal, and a save file is no text");
    Input input(options.archive, Access::Random);
    int status;
    const std::optional<Entry> entry = Find(input, options.name, status);
    if (!entry) {
        Complain(input.Name() + ": holds no entry " + Escape(options.name) +
                 (status == AllWell ? "" : " that can be reached: \"ctar salvage\" may find it"));
        return NotSound;
    }
    if (standard)
        CopyData(input, *entry, [](std::span<const char> bytes) { WriteAll(STDOUT_FILENO, bytes, "standard output"); });
    else
        ToFile(input, *entry, options.output.empty() ? FileNameFor(*entry) : options.output, options.force);
    return status;
}

} // namespace

Action DeclareExtract(CLI::App& command) {
    static ExtractOptions options;
    command.add_option("ARCHIVE", options.archive, "the archive, a file")->required();
    command.add_option("NAME", options.name, "the entry's full path, as bytes or as \"ctar list\" shows it")
        ->required();
    command.add_option("-o,--output", options.output, "the file to write, - for standard output")->type_name("FILE");
    command.add_flag("-f,--force", options.force, "replace the file if it is there");
    return [] { return Extract(options); };
}
