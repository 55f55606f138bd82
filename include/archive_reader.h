// Reading a CTAR archive (its format is in ctar.h), from a file or a pipe, front to back. A silent part: it returns
// what it found or what failed, and the module that drives it logs that.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

#include "ctar.h"
#include "read_ahead.h"
#include "resources.h"

// What the block is that should be a header or the sentinel.
enum class BlockKind {
    Header,
    Sentinel,    // the end of the archive
    Nothing,     // the archive ended before it
    Part,        // the archive ended inside it
    BadChecksum, // neither a header nor a sentinel
    BadSize,     // a header whose size cannot be used
};
// Judges a block of which `held` bytes were read. Sets `size` for a Header: bytes of the entry's data.
BlockKind ClassifyBlock(std::span<const char, BlockSize> block, std::size_t held, std::int64_t& size);

// Opens an archive for reading; "-" is standard input. A file is read past the page cache where its file system allows
// that: data that is read once gains nothing from it. The result is not open, with errno set, after a failure.
Descriptor OpenArchiveForReading(const std::string& path);

// Reads until `length` bytes are in or the archive ends: a pipe that delivers odd pieces must not shift the block grid.
// Returns the bytes read, or -1 when the first read fails. `buffer` and `length` must suit direct I/O: whole blocks at
// an address that is a multiple of 512.
ssize_t ReadArchive(int descriptor, char* buffer, std::size_t length);

// The data of one entry.
struct EntryReader {
    int descriptor = -1;
    std::int64_t size = 0; // of the entry's data, bytes
    std::int64_t left = 0; // not yet delivered; below 0 once the padding of the last block has been read
    ReadAhead ahead{};     // under way for large entries that wait for a disk
};

// Starts at the first byte of an entry's data, the archive being positioned there.
void BeginEntryData(EntryReader& reader, int descriptor, std::int64_t size);
// Reads ahead of ReadEntryData where that pays: for an entry that is wanted.
void ReadEntryAhead(EntryReader& reader);

// Delivers the next data bytes, at most `count` (a multiple of 512): 0 at the end of the entry and where the archive
// ends early, -1 with errno set when a read failed. The padding goes with the last data, so that the archive's position
// stays on the block grid.
ssize_t ReadEntryData(EntryReader& reader, char* buffer, int count);
// How many bytes ReadEntryData(reader, ..., count) asks for.
std::int64_t WantedBytes(const EntryReader& reader, int count);

enum class SkipStep {
    Seek, // the archive cannot be positioned, and is read instead
    Map,  // no memory to read into
    Read,
    End, // the archive ended before
};
struct SkipFailure {
    SkipStep step{};
    int error = 0;          // errno of the step
    std::int64_t bytes = 0; // that the step was about
};
std::string DescribeFailure(const SkipFailure& failure);

// Moves on by `count` bytes rounded up to whole blocks, by seeking where that works and else by reading. Returns false
// when the archive ends before or cannot be read; `failures` receives what happened, in order, also where seeking
// failed and reading did it.
bool SkipArchive(int descriptor, std::int64_t count, std::vector<SkipFailure>& failures);
