#include "entry.h"

#include <algorithm>
#include <optional>

#include <sys/stat.h>

#include "archive_reader.h"
#include "commands.h"
#include "messages.h"
#include "object_kind.h"
#include "text.h"

namespace ctar {

Entry ReadEntry(std::span<const char, BlockSize> block, std::int64_t offset) {
    Entry entry;
    entry.offset = offset;
    entry.name = ReadCtarName(block);
    if (!ReadCtarMode(block, entry.mode))
        entry.mode = entry.name.ends_with(NameSuffix) ? S_IFDIR | 0755 : S_IFREG | 0644;
    ReadCtarMtime(block, entry.mtime);
    ReadCtarSize(block, entry.size);
    return entry;
}

// The time is copied as stored. Going through a local time would change it in the hour that a time zone repeats.
CtarBlock EncodeEntry(const Entry& entry) {
    std::string_view path = entry.name;
    if ((entry.mode & S_IFDIR) != 0 && path.ends_with(NameSuffix))
        path.remove_suffix(NameSuffix.size());
    bool cut;
    CtarBlock block = EncodeCtarHeader(path, static_cast<std::uint64_t>(entry.size), entry.mode, {}, cut);
    PutCtarMtime(block, entry.mtime);
    return block;
}

bool LooksLikeHeader(std::span<const char, BlockSize> block, std::int64_t offset, Entry& entry) {
    if (!HasGoodChecksum(block) || IsCtarSentinel(block))
        return false;
    entry = ReadEntry(block, offset);
    return ReadCtarSize(block, entry.size) && entry.size > 0 && entry.name.starts_with('/');
}

const char* KindOf(const Entry& entry) {
    const std::string path = entry.Path();
    switch (ClassifyPath(path)) {
    case ObjectKind::System:
        return path == SecurityDataPath ? "security data" : "configuration";
    case ObjectKind::Qdls:
        return "documents";
    case ObjectKind::Library:
        return "library";
    case ObjectKind::Ifs:
        break;
    }
    return S_ISDIR(entry.mode) ? "directory" : "file";
}

bool MatchesName(const Entry& entry, const std::string& wanted) {
    const std::string path = entry.Path();
    return wanted == entry.name || wanted == path || wanted == Escape(entry.name) || wanted == Escape(path);
}

bool ContainsPath(const Entry& entry, const std::string& wanted) {
    const std::string path = entry.Path();
    return wanted.starts_with(path + "/") || wanted.starts_with(Escape(path) + "/");
}

// Walking

const ChainStopText& Describe(ChainStop stop) {
    static const ChainStopText texts[] = {
        {"", ""},
        {"no-sentinel", DescribeBlock(BlockKind::Nothing)},
        {"cut-header", DescribeBlock(BlockKind::Part)},
        {"checksum", DescribeBlock(BlockKind::BadChecksum)},
        {"size", DescribeBlock(BlockKind::BadSize)},
        {"cut-data", "the archive ends inside this entry"},
    };
    return texts[static_cast<std::size_t>(stop)];
}

std::string ChainEnd::Name() const {
    return stop == ChainStop::Data || stop == ChainStop::Size ? ReadCtarName(block) : "";
}

namespace {

// Why the chain ends with the block just read, of which `length` bytes exist; nothing for a good header.
std::optional<ChainStop> FindStop(const CtarBlock& block, std::size_t length) {
    std::int64_t size;
    switch (ClassifyBlock(block, length, size)) {
    case BlockKind::Sentinel:
        return ChainStop::Sentinel;
    case BlockKind::Nothing:
        return ChainStop::End;
    case BlockKind::Part:
        return ChainStop::PartBlock;
    case BlockKind::BadChecksum:
        return ChainStop::Checksum;
    case BlockKind::BadSize:
        return ChainStop::Size;
    case BlockKind::Header:
        break;
    }
    return std::nullopt;
}

} // namespace

ChainEnd WalkEntries(Input& input, const EntryHandler& process) {
    for (;;) {
        RequireOutput();
        ChainEnd end{ChainStop::Data, input.Offset(), {}};
        const std::size_t length = input.ReadBlock(end.block);
        if (const std::optional<ChainStop> stop = FindStop(end.block, length)) {
            end.stop = *stop;
            return end;
        }
        const Entry entry = ReadEntry(end.block, end.offset);
        if (input.MayContain(entry.size))
            process(entry, end.block);
        const std::int64_t left = RoundToBlocks(entry.size) - (input.Offset() - entry.DataOffset());
        if (input.Skip(left) < left)
            return end;
    }
}

int ReportChainEnd(Input& input, const ChainEnd& end) {
    if (end.stop != ChainStop::Sentinel) {
        const std::string name = Escape(end.Name());
        PrintError(input.Name() + ": " + FormatOffset(end.offset) + ": " + name + (name.empty() ? "" : ": ") +
                   Describe(end.stop).text);
        return ExitFaults;
    }
    const std::string where = input.Name() + ": " + FormatOffset(input.Offset()) + ": ";
    const std::int64_t rest = input.Skip(INT64_MAX);
    if (rest == 0)
        return ExitSuccess;
    PrintError(where + FormatCount(rest, "byte", "bytes") +
               " after the end of the archive; a restore will not see them");
    return ExitFaults;
}

std::int64_t ReadData(Input& input, const Entry& entry, const Sink& sink) {
    std::int64_t done = 0;
    while (done < entry.size) {
        const std::span<const char> bytes = input.Read(entry.size - done);
        if (bytes.empty())
            break;
        done += static_cast<std::int64_t>(bytes.size());
        if (!sink(bytes))
            break;
    }
    return done;
}

bool IsZero(std::span<const char> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
}

bool ReadsZeroPadding(Input& input, const Entry& entry) {
    std::int64_t left = RoundToBlocks(entry.size) - entry.size;
    while (left > 0) {
        const std::span<const char> bytes = input.Read(left);
        if (bytes.empty() || !IsZero(bytes))
            return bytes.empty();
        left -= static_cast<std::int64_t>(bytes.size());
    }
    return true;
}

} // namespace ctar
