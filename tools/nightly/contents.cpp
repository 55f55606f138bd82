#include "contents.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <span>

#include "archive_reader.h"
#include "ctar.h"
#include "ctar/digest.h"
#include "ctar/messages.h"
#include "ctar/sum_lines.h"
#include "failure.h"
#include "resources.h"
#include "text.h"

namespace nightly {

namespace {

constexpr int PieceSize = 1 << 20;

// A reading of one archive.
struct Walk {
    ArchiveReader reader;
    Mapping buffer;
    std::int64_t offset = 0; // of the next header
    std::int64_t size = 0;   // of the file, bytes
    ArchiveContents contents;

    void Fail(const std::string& why) {
        contents.fault = FormatText("at %lld: %s", static_cast<long long>(offset), why.c_str());
    }
};

// Reads the data of an entry into its digest. Returns false when the archive ends before or cannot be read.
bool DigestData(Walk& walk, EntryFacts& entry) {
    ctar::Digest digest;
    std::int64_t left = entry.size;
    walk.reader.BeginEntry(entry.size);
    while (left > 0) {
        std::string_view data;
        if (!walk.reader.ReadData({walk.buffer.Data(), PieceSize}, data) || data.empty())
            return false;
        digest.Add(data);
        left -= static_cast<std::int64_t>(data.size());
    }
    entry.digest = digest.Hex();
    return true;
}

bool SkipData(Walk& walk, const EntryFacts& entry) {
    std::vector<SkipFailure> failures; // a seek goes beyond the end, too
    return walk.reader.Skip(entry.size, failures) &&
           RoundToBlocks(entry.size) <= walk.size - walk.offset - static_cast<std::int64_t>(BlockSize);
}

// Reads one header and its entry. Returns false at the end of the chain, which may be a fault.
bool ReadEntry(Walk& walk, Digests digests) {
    const ssize_t held = walk.reader.Read(walk.buffer.Data(), BlockSize);
    if (held < 0) {
        walk.Fail(std::strerror(errno));
        return false;
    }
    const std::span<const char, BlockSize> block(walk.buffer.Data(), BlockSize);
    EntryFacts entry;
    const BlockKind kind = ClassifyBlock(block, static_cast<std::size_t>(held), entry.size);
    if (kind == BlockKind::Sentinel) {
        const ssize_t more = walk.reader.Read(walk.buffer.Data(), BlockSize);
        if (more < 0)
            walk.Fail(std::strerror(errno));
        else if (more > 0)
            walk.Fail("data after the end of the archive, which a restore will not see");
        return false;
    }
    if (kind != BlockKind::Header) {
        walk.Fail(DescribeBlock(kind));
        return false;
    }
    entry.name = ReadCtarName(block);
    entry.path = CutNameSuffix(entry.name);
    entry.offset = walk.offset;
    if (digests == Digests::Compute ? !DigestData(walk, entry) : !SkipData(walk, entry)) {
        walk.Fail("the archive ends inside the entry " + ctar::Escape(entry.path));
        return false;
    }
    walk.offset += static_cast<std::int64_t>(BlockSize) + RoundToBlocks(entry.size);
    walk.contents.entries.push_back(std::move(entry));
    return true;
}

} // namespace

ArchiveContents ReadArchive(const std::string& path, Digests digests) {
    Walk walk;
    if (!walk.buffer.Map(PieceSize) || !walk.reader.Open(path))
        throw Failure(ctar::WithReason(path));
    walk.size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    while (ReadEntry(walk, digests)) {
    }
    return std::move(walk.contents);
}

std::string SumsText(const ArchiveContents& contents) {
    std::string text;
    for (const EntryFacts& entry : contents.entries)
        text += ctar::FormatSumLine({entry.digest, entry.offset, entry.size, entry.name});
    return text;
}

void ReadSums(const std::string& path, std::vector<EntryFacts>& entries) {
    for (ctar::SumsFile file(path); file.Current(); file.Advance()) {
        const ctar::SumLine& line = *file.Current();
        entries.push_back({std::string(CutNameSuffix(line.name)), line.name, line.offset, line.size, line.digest});
    }
}

} // namespace nightly
