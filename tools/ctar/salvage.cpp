// ctar salvage: a sound archive from all that can be recovered of a damaged one.
//
// The input is taken in ranges from front to back. While the chain holds, each header leads to the next, and nothing
// inside an entry is looked at: a save file may hold an archive itself. Where the chain ends before the input does
// (behind an old sentinel, or at a block that is no header and cannot be mended) the blocks are scanned for a header
// that leads to another header, a sentinel or the end, or has at least no such header in its data; from there on the
// chain holds again.

#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <tuple>

#include <CLI/CLI.hpp>

#include "entry.h"
#include "messages.h"
#include "output.h"

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
    std::int64_t dropped = 0;     // bytes
    std::int64_t doubtful = 0;    // entries
    std::int64_t next_header = 0; // of the last FindHeader()
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

std::int64_t EndOf(const Entry& entry) {
    return entry.DataOffset() + RoundToBlocks(entry.size);
}

// Whether the entry's data lie within the input.
bool Fits(const Input& input, const Entry& entry) {
    return entry.size <= input.Size() - entry.DataOffset();
}

// Whether what should be a header or a sentinel is one, or the input ends before the end of it.
bool ChainHoldsAt(Input& input, std::int64_t offset) {
    CtarBlock block;
    return input.ReadBlockAt(offset, block) < BlockSize || HasGoodChecksum(block);
}

bool LeadsOn(Input& input, const Entry& entry) {
    return Fits(input, entry) && ChainHoldsAt(input, EndOf(entry));
}

// The offset of the first good header that leads on, from `begin` on; INT64_MAX when there is none.
// Requires: `begin` never descends. So the input is read once for this, whatever stands in it.
std::int64_t FindHeader(Salvage& run, std::int64_t begin) {
    CtarBlock block{};
    Entry entry;
    std::int64_t& offset = run.next_header;
    for (offset = std::max(offset, begin); offset <= run.input.Size() - Block; offset += Block) {
        run.input.ReadBlockAt(offset, block);
        if (LooksLikeHeader(block, offset, entry) && LeadsOn(run.input, entry))
            return offset;
    }
    return offset = INT64_MAX;
}

// Whether no entry of its own begins in the entry's data.
bool IsClear(Salvage& run, const Entry& entry) {
    return FindHeader(run, entry.DataOffset()) >= EndOf(entry);
}

// A header read with one of its two sizes.
struct Reading {
    Entry entry;
    bool exact; // a backup would have stored the same checksum for this entry
    bool leads; // to a header, a sentinel or the end
};

// Nothing when the entry would have no data or not all of them. Every name begins with a slash; where the checksum says
// so, that byte alone is damaged.
std::optional<Reading> ReadAs(Input& input, CtarBlock block, std::int64_t offset, HeaderField size) {
    std::int64_t bytes;
    if (!ReadCtarSize(block, bytes, size) || bytes == 0)
        return std::nullopt;
    const bool named = block.front() == '/';
    block.front() = '/';
    Entry entry = ReadEntry(block, offset);
    entry.size = bytes;
    constexpr HeaderField sum = HeaderFields::Checksum;
    const CtarBlock whole = EncodeEntry(entry);
    const bool exact =
        std::equal(whole.begin() + sum.offset, whole.begin() + sum.offset + sum.width, block.begin() + sum.offset);
    if (!Fits(input, entry) || !(named || exact))
        return std::nullopt;
    return Reading{entry, exact, LeadsOn(input, entry)};
}

bool HasWholeRecords(const Entry& entry) {
    return entry.size % RecordSize == 0;
}

bool IsLikelier(const Reading& one, const Reading& other) {
    const auto merits = [](const Reading& reading) {
        return std::tuple(reading.exact, reading.leads, HasWholeRecords(reading.entry));
    };
    return merits(one) > merits(other);
}

// An entry whose header may be damaged, put together again.
struct Mended {
    Entry entry;
    bool certain;
    bool backed; // by the checksum or by both sizes
    bool leads;
};

// A header with one field damaged gives the entry back: one of the two sizes is good. The checksum tells whether the
// result is what was written. It is a plain sum that also stays right when two digits change places, so sizes that
// differ under a good one leave the choice to what they lead to.
std::optional<Mended> Mend(Input& input, const CtarBlock& block, std::int64_t offset) {
    std::optional<Reading> best = ReadAs(input, block, offset, HeaderFields::Size);
    std::optional<Reading> other = ReadAs(input, block, offset, HeaderFields::SizeCopy);
    if (!best || (other && IsLikelier(*other, *best)))
        best.swap(other);
    if (!best)
        return std::nullopt;
    const bool good = HasGoodChecksum(block);
    const bool agree = other && other->entry.size == best->entry.size;
    const bool only = best->leads && !(other && other->leads);
    const bool certain = agree ? good || best->exact : HasWholeRecords(best->entry) && (good ? only : best->exact);
    return Mended{best->entry, certain, good || best->exact || agree, best->leads};
}

// Whether the block that the chain leads to can be mended; a scan, which comes by data too, takes only what is
// backed.
bool IsEntry(Salvage& run, const Mended& mended) {
    return mended.certain || mended.leads || (mended.backed && IsClear(run, mended.entry));
}
bool IsFound(Salvage& run, const Mended& mended) {
    return mended.backed && (mended.leads || IsClear(run, mended.entry));
}

// Entries

// Whether a header or the sentinel stands where the entry's size leads, or a header that can be mended.
bool IsFollowed(Salvage& run, const Entry& entry) {
    CtarBlock block;
    if (run.input.ReadBlockAt(EndOf(entry), block) < BlockSize)
        return false;
    if (HasGoodChecksum(block))
        return true;
    const std::optional<Mended> next = Mend(run.input, block, EndOf(entry));
    return next && IsEntry(run, *next);
}

// Copies the entry under a header as the writer writes it. Gives the offset behind it in the input. Data that lost
// bytes, or have some too many, show it only by what stands behind them: that adds to `doubt`.
std::int64_t Keep(Salvage& run, const Entry& entry, const std::string& remark, std::string doubt) {
    const std::int64_t padding = RoundToBlocks(entry.size) - entry.size;
    const std::int64_t end = std::min(EndOf(entry), run.input.Size());
    run.output.Write(EncodeEntry(entry));
    run.input.Seek(entry.DataOffset());
    const Sink copy = [&run](std::span<const char> bytes) {
        run.output.Write(bytes);
        return true;
    };
    if (ReadData(run.input, entry, copy) < entry.size)
        throw Failure(run.input.Name() + ": " + OffsetText(run.input.Offset()) + ": the archive shrank");
    if (!ReadsZeroPadding(run.input, entry) || !IsFollowed(run, entry))
        doubt += ": its data may be wrong: no padding of zeros and a header follow them";
    const CtarBlock zeros{};
    run.output.Write(std::span(zeros).first(static_cast<std::size_t>(padding)));
    run.doubtful += doubt.empty() ? 0 : 1;
    Tell(entry.offset, end, "kept as entry " + Escape(entry.name) + remark + doubt);
    return end;
}

// Looks for the next entry. Gives its offset, or the input's end, after telling of what lies before.
std::int64_t Scan(Salvage& run, std::int64_t begin, const std::string& why) {
    CtarBlock block;
    run.input.Seek(begin);
    bool zero = true;
    std::int64_t offset = begin;
    while (const std::size_t held = run.input.ReadBlock(block)) {
        const std::optional<Mended> found = held < BlockSize ? std::nullopt : Mend(run.input, block, offset);
        if (found && IsFound(run, *found))
            break;
        zero = zero && IsZero(std::span(block).first(held));
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
    std::int64_t copy;
    const bool sized = good && ReadCtarSize(block, entry.size) && ReadCtarSize(block, copy, HeaderFields::SizeCopy) &&
                       copy == entry.size;
    if (sized && entry.size == 0) {
        Drop(run, offset, offset + Block, Escape(entry.name) + " is an entry without data");
        return offset + Block;
    }
    if (sized && Fits(run.input, entry))
        return Keep(run, entry, "", "");
    const std::optional<Mended> mended = Mend(run.input, block, offset);
    if (mended && IsEntry(run, *mended))
        return Keep(run, mended->entry, ", its header mended",
                    mended->certain ? "" : ": name, size, mode or time may be wrong");
    if (sized) {
        Drop(run, offset, run.input.Size(),
             Escape(entry.name) + " is cut off: " + std::to_string(run.input.Size() - entry.DataOffset()) + " of " +
                 std::to_string(entry.size) + " bytes are there");
        return run.input.Size();
    }
    return Scan(run, offset,
                std::string("neither a header nor the sentinel, or behind such a block") +
                    (entry.name.starts_with('/') ? "; it reads as " + Escape(entry.name) : ""));
}

int SalvageArchive(const SalvageOptions& options) {
    if (options.output == "-")
        throw Failure("standard output: tells what became of each range: give -o the name of a file");
    Input input(options.damaged, Access::Random);
    if (input.Size() < Block)
        throw Failure(input.Name() + ": has not even one block of an archive");
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
