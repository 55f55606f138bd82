// ctar salvage: builds a sound archive from all that can be recovered of a damaged one.
//
// The input is processed in ranges, front to back. As long as the chain holds, each header leads to the next, and the
// data of entries are not looked at, because a save file may contain an archive. Where the chain ends before the input
// does (after an old sentinel, or at a block that is not a header and cannot be repaired), the following blocks are
// scanned for a header that leads to another header, to a sentinel or to the end, or at least has no such header within
// its data. The chain continues from there.

#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <tuple>

#include <CLI/CLI.hpp>

#include "archive_writer.h"
#include "entry.h"
#include "messages.h"
#include "output.h"

namespace ctar {

namespace {

constexpr std::int64_t Block = BlockSize;

struct SalvageOptions {
    std::string damaged;
    std::string output;
    bool force = false;
};

struct Salvage {
    Input& input;
    ArchiveFile& archive;         // that is written
    std::string output;           // its path, for messages
    std::int64_t dropped = 0;     // bytes
    std::int64_t doubtful = 0;    // entries
    std::int64_t next_header = 0; // what FindHeader() found last
};

// Prints what became of the range from `begin` to `end`.
void PrintRange(std::int64_t begin, std::int64_t end, const std::string& fate) {
    std::printf("%s: %lld bytes: %s\n", FormatOffset(begin).c_str(), static_cast<long long>(end - begin), fate.c_str());
}

void DropRange(Salvage& run, std::int64_t begin, std::int64_t end, const std::string& why) {
    PrintRange(begin, end, "dropped: " + why);
    run.dropped += end - begin;
}

// Reading headers

std::int64_t EndOf(const Entry& entry) {
    return entry.DataOffset() + RoundToBlocks(entry.size);
}

// Whether all of the entry's data are within the input.
bool Fits(const Input& input, const Entry& entry) {
    return entry.size <= input.Size() - entry.DataOffset();
}

// Whether a header or a sentinel is at that offset, or the input ends before the end of that block.
bool ChainContinuesAt(Input& input, std::int64_t offset) {
    CtarBlock block;
    return input.ReadBlockAt(offset, block) < BlockSize || HasGoodChecksum(block);
}

// Whether the entry's size leads to a header, to a sentinel or to the end.
bool LeadsOn(Input& input, const Entry& entry) {
    return Fits(input, entry) && ChainContinuesAt(input, EndOf(entry));
}

// The offset of the first good header from `begin` on that leads on, or INT64_MAX. Requires: `begin` never decreases
// between calls. So all calls together read the input only once.
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

// Whether no header that leads on is within the entry's data.
bool ContainsNoHeader(Salvage& run, const Entry& entry) {
    return FindHeader(run, entry.DataOffset()) >= EndOf(entry);
}

// What a damaged header says if one of its two sizes is right.
struct Candidate {
    Entry entry;
    bool is_exact; // a backup would have stored the same checksum for this entry
    bool leads_on;
};

// Returns nothing when the entry would have no data, or data beyond the input. Every name begins with a slash; another
// first byte is accepted as the only damage if the checksum then matches.
std::optional<Candidate> ReadCandidate(Input& input, CtarBlock block, std::int64_t offset, HeaderField size) {
    std::int64_t bytes;
    if (!ReadCtarSize(block, bytes, size) || bytes == 0)
        return std::nullopt;
    const bool has_slash = block.front() == '/';
    block.front() = '/';
    Entry entry = ReadEntry(block, offset);
    entry.size = bytes;
    constexpr HeaderField sum = HeaderFields::Checksum;
    const CtarBlock expected = EncodeEntry(entry);
    const bool is_exact = std::equal(expected.begin() + sum.offset, expected.begin() + sum.offset + sum.width,
                                     block.begin() + sum.offset);
    if (!Fits(input, entry) || !(has_slash || is_exact))
        return std::nullopt;
    return Candidate{entry, is_exact, LeadsOn(input, entry)};
}

bool HasWholeRecords(const Entry& entry) {
    return entry.size % RecordSize == 0;
}

bool IsLikelier(const Candidate& one, const Candidate& other) {
    const auto merits = [](const Candidate& candidate) {
        return std::tuple(candidate.is_exact, candidate.leads_on, HasWholeRecords(candidate.entry));
    };
    return merits(one) > merits(other);
}

// An entry recovered from a header that may be damaged.
struct Repaired {
    Entry entry;
    bool is_certain;
    bool is_confirmed; // by the checksum, or by both sizes
    bool leads_on;
};

// A header with one damaged field still yields the entry, since one of its two sizes is good. The checksum tells
// whether the result is what was written. Being a plain sum, it does not change when two digits swap places. So if the
// checksum is good but the sizes differ, the size that leads on is chosen.
std::optional<Repaired> RepairHeader(Input& input, const CtarBlock& block, std::int64_t offset) {
    std::optional<Candidate> best = ReadCandidate(input, block, offset, HeaderFields::Size);
    std::optional<Candidate> other = ReadCandidate(input, block, offset, HeaderFields::SizeCopy);
    if (!best || (other && IsLikelier(*other, *best)))
        best.swap(other);
    if (!best)
        return std::nullopt;
    const bool good_sum = HasGoodChecksum(block);
    const bool same_size = other && other->entry.size == best->entry.size;
    const bool leads_alone = best->leads_on && !(other && other->leads_on);
    const bool is_certain = same_size ? good_sum || best->is_exact
                                      : HasWholeRecords(best->entry) && (good_sum ? leads_alone : best->is_exact);
    return Repaired{best->entry, is_certain, good_sum || best->is_exact || same_size, best->leads_on};
}

// Whether to accept a repaired header that the chain leads to. A scan also sees blocks of data, so it accepts only
// confirmed ones.
bool IsChainEntry(Salvage& run, const Repaired& repaired) {
    return repaired.is_certain || repaired.leads_on || (repaired.is_confirmed && ContainsNoHeader(run, repaired.entry));
}
bool IsScannedEntry(Salvage& run, const Repaired& repaired) {
    return repaired.is_confirmed && (repaired.leads_on || ContainsNoHeader(run, repaired.entry));
}

// Entries

// Whether the entry's size leads to a header, to a header that can be repaired, or to a sentinel.
bool IsFollowed(Salvage& run, const Entry& entry) {
    CtarBlock block;
    if (run.input.ReadBlockAt(EndOf(entry), block) < BlockSize)
        return false;
    if (HasGoodChecksum(block))
        return true;
    const std::optional<Repaired> next = RepairHeader(run.input, block, EndOf(entry));
    return next && IsChainEntry(run, *next);
}

// Throws Failure for what the archive writer could not write.
void Require(const Salvage& run, const ArchiveFailures& failures) {
    if (!failures.empty())
        throw Failure(run.output + ": " + DescribeFailure(failures.front()));
}

// Appends the entry's data, and closes it under a header as a backup writes it.
void CopyEntry(Salvage& run, const Entry& entry) {
    ArchiveWriter writer{run.archive};
    const off_t start = BeginEntry(writer);
    run.input.Seek(entry.DataOffset());
    const Sink append = [&](std::span<const char> bytes) {
        int count = static_cast<int>(bytes.size()); // at most what the input buffers
        Require(run, AppendData(writer, bytes.data(), count));
        return true;
    };
    if (ReadData(run.input, entry, append) < entry.size)
        throw Failure(run.input.Name() + ": " + FormatOffset(run.input.Offset()) + ": the archive shrank");
    Require(run, CloseEntry(writer, start, [&entry](std::int64_t) { return EncodeEntry(entry); }));
}

// Copies the entry. Returns the offset after it in the input. Bytes lost from its data or added to them show only in
// what follows the data: that adds to `doubt`.
std::int64_t Keep(Salvage& run, const Entry& entry, const std::string& remark, std::string doubt) {
    const std::int64_t end = std::min(EndOf(entry), run.input.Size());
    CopyEntry(run, entry);
    if (!ReadsZeroPadding(run.input, entry) || !IsFollowed(run, entry))
        doubt += ": the data may be wrong: zero padding and a header do not follow";
    run.doubtful += doubt.empty() ? 0 : 1;
    PrintRange(entry.offset, end, "kept as entry " + Escape(entry.name) + remark + doubt);
    return end;
}

// Looks for the next entry, dropping what precedes it. Returns its offset, or the input's end.
std::int64_t Scan(Salvage& run, std::int64_t begin, const std::string& why) {
    CtarBlock block;
    run.input.Seek(begin);
    bool is_zero = true;
    std::int64_t offset = begin;
    while (const std::size_t length = run.input.ReadBlock(block)) {
        const std::optional<Repaired> found =
            length < BlockSize ? std::nullopt : RepairHeader(run.input, block, offset);
        if (found && IsScannedEntry(run, *found))
            break;
        is_zero = is_zero && IsZero(std::span(block).first(length));
        offset = run.input.Offset();
    }
    if (offset > begin)
        DropRange(run, begin, offset, is_zero ? "zeros" : why);
    return offset;
}

// Processes the range that begins where the chain leads. Returns the offset after it.
std::int64_t ProcessRange(Salvage& run, std::int64_t offset) {
    CtarBlock block;
    if (run.input.ReadBlockAt(offset, block) < BlockSize) {
        DropRange(run, offset, run.input.Size(), "less than a block");
        return run.input.Size();
    }
    const bool good_sum = HasGoodChecksum(block);
    if (good_sum && IsCtarSentinel(block)) {
        PrintRange(offset, offset + Block, "sentinel");
        return Scan(run, offset + Block, "follows a sentinel: data of a broken retrieval, or junk");
    }
    Entry entry = ReadEntry(block, offset);
    std::int64_t copy;
    const bool is_sized = good_sum && ReadCtarSize(block, entry.size) &&
                          ReadCtarSize(block, copy, HeaderFields::SizeCopy) && copy == entry.size;
    if (is_sized && entry.size == 0) {
        DropRange(run, offset, offset + Block, "entry without data: " + Escape(entry.name));
        return offset + Block;
    }
    if (is_sized && Fits(run.input, entry))
        return Keep(run, entry, "", "");
    const std::optional<Repaired> repaired = RepairHeader(run.input, block, offset);
    if (repaired && IsChainEntry(run, *repaired))
        return Keep(run, repaired->entry, ", header repaired",
                    repaired->is_certain ? "" : ": name, size, mode or time may be wrong");
    if (is_sized) {
        DropRange(run, offset, run.input.Size(),
                  Escape(entry.name) + " is cut short: " + std::to_string(run.input.Size() - entry.DataOffset()) +
                      " of " + std::to_string(entry.size) + " bytes");
        return run.input.Size();
    }
    return Scan(run, offset,
                std::string("neither a header nor a sentinel, or follows such a block") +
                    (entry.name.starts_with('/') ? "; the name in it is " + Escape(entry.name) : ""));
}

int SalvageArchive(const SalvageOptions& options) {
    if (options.output == "-")
        throw Failure("-o -: the new archive must be a file; standard output gets the report");
    Input input(options.damaged, Access::Random);
    if (input.Size() < Block)
        throw Failure(input.Name() + ": shorter than one block, so not an archive");
    if (input.IsSameFile(options.output))
        throw Failure(Escape(options.output) + ": is the damaged archive itself");
    OutputFile output(options.output, options.force);
    ArchiveFile archive{output.Duplicate(), {}};
    Salvage run{input, archive, Escape(options.output)};
    Require(run, BeginArchive(archive));
    for (std::int64_t offset = 0; offset < input.Size();)
        offset = ProcessRange(run, offset);
    output.Commit();
    if (run.dropped == 0 && run.doubtful == 0)
        return ExitSuccess;
    PrintError(input.Name() + ": " + FormatCount(run.dropped, "byte", "bytes") + " dropped, " +
               FormatCount(run.doubtful, "entry", "entries") + " in doubt");
    return ExitFaults;
}

} // namespace

Action DeclareSalvage(CLI::App& command) {
    static SalvageOptions options;
    command.add_option("DAMAGED", options.damaged, "the archive, a file; it is not changed")->required();
    command.add_option("-o,--output", options.output, "the archive to write")->type_name("NEW")->required();
    command.add_flag("-f,--force", options.force, "replace an existing file");
    return [] { return SalvageArchive(options); };
}

} // namespace ctar
