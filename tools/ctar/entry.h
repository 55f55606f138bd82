// The entries of an archive as ctar sees them, and the walk from header to header that every command makes.

#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <span>
#include <string>

#include "ctar.h"
#include "input.h"

namespace ctar {

constexpr std::int64_t RecordSize = 528; // bytes; a save file consists of such records

struct Entry {
    std::int64_t offset = 0; // of the header
    std::string name;        // as stored
    std::int64_t size = 0;   // of the data, bytes
    std::uint32_t mode = 0;  // st_mode; guessed from the name if the header has none
    std::time_t mtime = 0;   // 0 if the header has none

    std::string Path() const { return std::string(CutNameSuffix(name)); } // the name as a restore sees it
    std::int64_t DataOffset() const { return offset + static_cast<std::int64_t>(BlockSize); }
};

// The entry that a header describes. A size that cannot be read is 0.
Entry ReadEntry(std::span<const char, BlockSize> block, std::int64_t offset);

// The header that a backup would have written for this entry.
CtarBlock EncodeEntry(const Entry& entry);

// Returns true and sets `entry` when the block reads as an entry's header: a good checksum, a full path, and data.
bool LooksLikeHeader(std::span<const char, BlockSize> block, std::int64_t offset, Entry& entry);

// "library", "directory" and so on.
const char* KindOf(const Entry& entry);

// Whether a user who gives the name `wanted` means this entry. Accepts the stored name and the path, both as bytes and
// as ctar prints them.
bool MatchesName(const Entry& entry, const std::string& wanted);
// Whether `wanted`, a path given in the same ways, lies below the entry's path.
bool ContainsPath(const Entry& entry, const std::string& wanted);

// Where and why a chain of entries ends.
enum class ChainStop {
    Sentinel,  // the regular end; what follows is not looked at
    End,       // the archive ends where a header or the sentinel should begin
    PartBlock, // the archive ends inside that block
    Checksum,  // the block is neither
    Size,      // a header without a usable size
    Data,      // the archive ends inside the entry
};
struct ChainEnd {
    ChainStop stop;
    std::int64_t offset; // of the header, the sentinel or the block in its place
    CtarBlock block{};   // that block, as much of it as exists

    std::string Name() const; // as stored in a header with a good checksum, otherwise empty
};

struct ChainStopText {
    const char* code; // a stable word
    const char* text;
};
const ChainStopText& Describe(ChainStop stop); // Requires: not Sentinel.

// Walks the chain from the input's position. Calls `process` for every good header, with the input just after it, then
// skips whatever `process` has not read of the entry. An entry whose data are cut short is processed only if its end is
// not known beforehand (a pipe). Leaves the input after the last block looked at. Throws OutputFailed.
using EntryHandler = std::function<void(const Entry&, const CtarBlock& header)>;
ChainEnd WalkEntries(Input& input, const EntryHandler& process);

// Prints an error unless the chain ends in a sentinel at the end of the input. Returns the exit status.
int ReportChainEnd(Input& input, const ChainEnd& end);

// Passes the entry's data to `sink` in pieces until it returns false. Returns the number of bytes passed: less than the
// entry's size if the data are cut short or the sink stopped. Requires: the input is at the entry's data.
using Sink = std::function<bool(std::span<const char>)>;
std::int64_t ReadData(Input& input, const Entry& entry, const Sink& sink);

bool IsZero(std::span<const char> bytes);

// Whether the padding, as much of it as exists, is zeros. Requires: the input is just after the entry's data.
bool ReadsZeroPadding(Input& input, const Entry& entry);

} // namespace ctar
