// ctar salvage: a sound archive from all that can be recovered of a damaged one.
//
// The input is taken in ranges from front to back. While the chain holds, each header leads to the next, and nothing
// inside an entry is looked at: a save file may hold an archive itself. Where the chain ends before the input does
// (behind an old sentinel, or at a block that is no header) the blocks are scanned for a header that leads to another
// header, a sentinel or the end; from there on the chain holds again.

#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "entry.h"
#include "output.h"
#include "text.h"

namespace {

constexpr std::int64_t Block = BlockSize;

struct SalvageOptions {
    std::string damaged;
    std::string output;
    bool force = false;
};

struct Salvage {
    Input& input;
    OutputFile& output;
    std::int64_t dropped = 0;  // bytes
    std::int64_t doubtful = 0; // entries
};

// Says what became of the range from `begin` to `end`.
void Tell(std::int64_t begin, std::int64_t end, const std::string& fate) {
    std::printf("%s: %lld bytes: %s\n", OffsetText(begin).c_str(), static_cast<long long>(end - begin), fate.c_str());
}

// Tells of a range that is lost.
void Drop(Salvage& run, std::int64_t begin, std::int64_t end, const std::string& why) {
    Tell(begin, end, "dropped: " + why);
    run.dropped += end - begin;
}

// Reading headers

// Whether the data of an entry at that offset lie within the input.
bool Fits(const Input& input, std::int64_t offset, std::int64_t size) {
    return size <= input.Size() - offset - Block;
}

// Whether what should be a header or a sentinel is one, or the input ends before the end of it.
bool ChainHoldsAt(Input& input, std::int64_t offset) {
    CtarBlock block;
    return input.ReadBlockAt(offset, block) < BlockSize || HasGoodChecksum(block);
}

bool LeadsOn(Input& input, const Entry& entry) {
    return Fits(input, entry.offset, entry.size) && ChainHoldsAt(input, entry.DataOffset() + RoundToBlocks(entry.size));
}

// An entry whose header is damaged, put together again.
struct Mended {
    Entry entry;
    bool certain; // it agrees with the checksum as stored
};

// A header with one field damaged gives the entry back: one of the two sizes is good. The stored checksum tells whether
// the result is what was written; if not, the entry must at least lead on.
std::optional<Mended> Mend(Input& input, const CtarBlock& block, std::int64_t offset) {
    std::optional<Mended> doubtful;
    for (const HeaderField field : {HeaderFields::Size, HeaderFields::SizeCopy}) {
        Entry entry = ReadEntry(block, offset);
        if (!ReadCtarSize(block, entry.size, field) || entry.size == 0 || !entry.name.starts_with('/') ||
            !Fits(input, offset, entry.size))
            continue;
        constexpr HeaderField sum = HeaderFields::Checksum;
        const CtarBlock whole = EncodeEntry(entry);
        if (std::equal(whole.begin() + sum.offset, whole.begin() + sum.offset + sum.width, block.begin() + sum.offset))
            return Mended{entry, true};
        if (!doubtful && LeadsOn(input, entry))
            doubtful = Mended{entry, false};
    }
    return doubtful;
}

// Entries

// Copies the entry under a header as the writer writes it. Gives the offset behind the entry in the input.
std::int64_t Keep(Salvage& run, const Entry& entry, const std::string& remark) {
    const std::int64_t padding = RoundToBlocks(entry.size) - entry.size;
    const std::int64_t end = std::min(entry.DataOffset() + entry.size + padding, run.input.Size());
    run.output.Write(EncodeEntry(entry));
    run.input.Seek(entry.DataOffset());
    const Sink copy = [&run](std::span<const char> bytes) {
        run.output.Write(bytes);
        return true;
    };
    if (ReadData(run.input, entry, copy) < entry.size)
        throw Failure(run.input.Name() + ": " + OffsetText(run.input.Offset()) + ": the archive shrank");
    const CtarBlock zeros{};
    run.output.Write(std::span(zeros).first(static_cast<std::size_t>(padding)));
    Tell(entry.offset, end, "kept as entry " + Escape(entry.name) + remark);
    return end;
}

// Looks for the next header that leads on. Gives its offset, or the input's end, after telling of what lies before.
std::int64_t Scan(Salvage& run, std::int64_t begin, const char* why) {
    CtarBlock block;
    run.input.Seek(begin);
    bool zero = true;
    std::int64_t offset = begin;
    Entry entry;
    while (const std::size_t held = run.input.ReadBlock(block)) {
        if (held == BlockSize && LooksLikeHeader(block, offset, entry) && LeadsOn(run.input, entry))
            break;
        zero = zero && std::all_of(block.begin(), block.begin() + held, [](char byte) { return byte == 0; });
        offset = run.input.Offset();
    }
    if (offset > begin)
        Drop(run, begin, offset, zero ? "zeros" : why);
    return offset;
}

// Takes what stands where the chain leads to. Gives the offset behind it.
std::int64_t TakeRange(Salvage& run, std::int64_t offset) {
    CtarBlock block;
    if (run.input.ReadBlockAt(offset, block) < BlockSize) {
        Drop(run, offset, run.input.Size(), "less than a block");
        return run.input.Size();
    }
    const bool good = HasGoodChecksum(block);
    if (good && IsCtarSentinel(block)) {
        Tell(offset, offset + Block, "sentinel");
        return Scan(run, offset + Block, "behind a sentinel, of a broken retrieval or junk");
    }
    Entry entry = ReadEntry(block, offset);
    const bool sized = good && ReadCtarSize(block, entry.size);
    if (sized && entry.size == 0) {
        Drop(run, offset, offset + Block, "the header of an entry without data");
        return offset + Block;
    }
    if (sized && Fits(run.input, offset, entry.size))
        return Keep(run, entry, "");
    if (const std::optional<Mended> mended = Mend(run.input, block, offset)) {
        run.doubtful += mended->certain ? 0 : 1;
        return Keep(run, mended->entry,
                    mended->certain ? ", its header mended" : ", its header mended: name, mode or time may be wrong");
    }
    if (sized) {
        Drop(run, offset, run.input.Size(),
             Escape(entry.name) + " is cut off: " + std::to_string(run.input.Size() - entry.DataOffset()) + " of " +
                 std::to_string(entry.size) + " bytes are there");
        return run.input.Size();
    }
    return Scan(run, offset, "neither a header nor the sentinel, or behind such a block");
}

int SalvageArchive(const SalvageOptions& options) {
    Input input(options.damaged, Access::Random);
    if (input.IsSameFile(options.output))
        throw Failure(Escape(options.output) + ": is the damaged archive itself");
    OutputFile output(options.output, options.force);
    Salvage run{input, output};
    for (std::int64_t offset = 0; offset < input.Size();)
        offset = TakeRange(run, offset);
    output.Write(BuildCtarSentinel());
    output.Commit();
    if (run.dropped == 0 && run.doubtful == 0)
        return AllWell;
    Complain(input.Name() + ": " + Counted(run.dropped, "byte", "bytes") + " dropped, " +
             Counted(run.doubtful, "entry", "entries") + " in doubt");
    return NotSound;
}

} // namespace

Action DeclareSalvage(CLI::App& command) {
    static SalvageOptions options;
    command.add_option("DAMAGED", options.damaged, "the archive, a file; it is only read")->required();
    command.add_option("-o,--output", options.output, "the archive to write")->type_name("NEW")->required();
    command.add_flag("-f,--force", options.force, "replace that archive if it is there");
    return [] { return SalvageArchive(options); };
}
