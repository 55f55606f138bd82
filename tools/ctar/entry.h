// Entries of an archive as ctar sees them, and the walk from header to header that every command makes.

#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <span>
#include <string>

#include "ctar.h"
#include "input.h"

constexpr std::int64_t RecordSize = 528; // a save file is a row of such records

struct Entry {
    std::int64_t offset = 0; // of the header
    std::string name;        // as stored
    std::int64_t size = 0;   // of the data, bytes
    std::uint32_t mode = 0;  // st_mode; what the name suggests where the header has none
    std::time_t mtime = 0;   // 0 where the header has none

    std::string Path() const { return std::string(CutNameSuffix(name)); } // as a restore sees the name
    std::int64_t DataOffset() const { return offset + static_cast<std::int64_t>(BlockSize); }
};

// What a header says. A size that cannot be read is left as it is.
Entry ReadEntry(std::span<const char, BlockSize> block, std::int64_t offset);

// The header that the writer would have written for this entry.
CtarBlock EncodeEntry(const Entry& entry);

// Whether the block reads as the header of an entry, and of which: a good checksum, a full path, at least one byte.
bool LooksLikeHeader(std::span<const char, BlockSize> block, std::int64_t offset, Entry& entry);

// "library", "directory" and so on.
const char* KindOf(const Entry& entry);

// Whether a name given by a user is this entry's: as stored or as restored, as bytes or as ctar prints it.
bool IsNamed(const Entry& entry, const std::string& wanted);

// Where and why a chain of entries ends.
enum class ChainStop {
    Sentinel,  // as it should; what stands behind is not looked at
    End,       // where a header or the sentinel should begin
    PartBlock, // inside that block
    Checksum,  // the block is neither
    Size,      // a header without a usable size
    Data,      // the archive ends inside the entry
};
struct ChainEnd {
    ChainStop stop;
    std::int64_t offset; // of the header or sentinel, or what stands in its place
    CtarBlock block{};   // that block as far as it goes

    std::string Name() const; // as stored in a header with a good checksum; else nothing
};

struct ChainStopText {
    const char* code; // a stable word
    const char* text;
};
const ChainStopText& TextOf(ChainStop stop); // Requires: not Sentinel.

// Walks the chain from the input's position. Calls `take` for every good header, the input right behind it; what `take`
// leaves of the entry is passed over. An entry whose data are cut off is taken only where that is not known before.
// The input is left behind the last block that was looked at. Throws OutputLost.
using TakeEntry = std::function<void(const Entry&, const CtarBlock& header)>;
ChainEnd WalkEntries(Input& input, const TakeEntry& take);

// Complains of a chain that does not end in a sentinel at the end of the input. Gives the exit status.
int JudgeChainEnd(Input& input, const ChainEnd& end);

// Hands the entry's data to `sink`, piece by piece, the input standing at its data, until `sink` gives false. Gives the
// bytes handed over: fewer than the entry's size when they are cut off, or the sink had enough.
using Sink = std::function<bool(std::span<const char>)>;
std::int64_t ReadData(Input& input, const Entry& entry, const Sink& sink);

bool IsZero(std::span<const char> bytes);

// Whether the padding is zeros as far as it goes. Requires: the input stands right behind the entry's data.
bool ReadsZeroPadding(Input& input, const Entry& entry);
