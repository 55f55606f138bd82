#include "entry.h"

#include <algorithm>
#include <optional>

#include <sys/stat.h>

#include "commands.h"
#include "messages.h"
#include "tree.h"

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

// The time is put in as it was stored: as a local time, one of the hour that a zone repeats would not come back.
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

bool IsNamed(const Entry& entry, const std::string& wanted) {
    const std::string path = entry.Path();
    return wanted == entry.name || wanted == path || wanted == Escape(entry.name) || wanted == Escape(path);
}

// Walking

const ChainStopText& TextOf(ChainStop stop) {
    static constexpr ChainStopText texts[] = {
        {"", ""},
        {"no-sentinel", "the archive ends without a sentinel"},
        {"cut-header", "the archive ends inside a block"},
        {"checksum", "neither a header nor the sentinel: bad checksum"},
        {"size", "a header whose size cannot be read"},
        {"cut-data", "the archive ends inside this entry"},
    };
    return texts[static_cast<std::size_t>(stop)];
}

std::string ChainEnd::Name() const {
    return stop == ChainStop::Data || stop == ChainStop::Size ? ReadCtarName(block) : "";
}

namespace {

// Why the chain ends with the block just read, `held` bytes of it; nothing for a good header.
std::optional<ChainStop> StopAt(const CtarBlock& block, std::size_t held) {
    std::int64_t size;
    if (held < BlockSize)
        return held == 0 ? ChainStop::End : ChainStop::PartBlock;
    if (!HasGoodChecksum(block))
        return ChainStop::Checksum;
    if (IsCtarSentinel(block))
        return ChainStop::Sentinel;
    if (!ReadCtarSize(block, size))
        return ChainStop::Size;
    return std::nullopt;
}

} // namespace

ChainEnd WalkEntries(Input& input, const TakeEntry& take) {
    for (;;) {
        RequireOutput();
        ChainEnd end{ChainStop::Data, input.Offset(), {}};
        const std::size_t held = input.ReadBlock(end.block);
        if (const std::optional<ChainStop> stop = StopAt(end.block, held)) {
            end.stop = *stop;
            return end;
        }
        const Entry entry = ReadEntry(end.block, end.offset);
        if (input.MayHold(entry.size))
            take(entry, end.block);
        const std::int64_t left = RoundToBlocks(entry.size) - (input.Offset() - entry.DataOffset());
        if (input.Skip(left) < left)
            return end;
    }
}

int JudgeChainEnd(Input& input, const ChainEnd& end) {
    const std::string where = input.Name() + ": " + OffsetText(end.offset) + ": ";
    if (end.stop != ChainStop::Sentinel) {
        const std::string name = Escape(end.Name());
        Complain(where + name + (name.empty() ? "" : ": ") + TextOf(end.stop).text);
        return NotSound;
    }
    if (input.Read(1).empty())
        return AllWell;
    Complain(where + "bytes stand behind the sentinel, and no restore reaches them: see \"ctar verify\"");
    return NotSound;
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
