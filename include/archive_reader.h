// Reading a CTAR archive (its format is in ctar.h), from a file or a pipe, front to back. A silent part: it returns
// what it found or what failed, and the module that drives it logs that.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "ctar.h"
#include "read_ahead.h"
#include "resources.h"

// What was found where a header or the sentinel should be.
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
// Why the chain of entries breaks there. Requires: neither a Header nor a Sentinel.
const char* DescribeBlock(BlockKind kind);

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

// Reads one archive from front to back. A file is read directly, past the page cache where its file system allows
// that, because data that is read once gains nothing from the cache; but what is in the cache already is taken from
// there. Standard input and anything but a file is read as it comes.
//
// `buffer` and `length` of the reads must suit direct I/O: whole blocks at an address that is a multiple of 512.
class ArchiveReader {
public:
    // Opens the archive; "-" is standard input. Returns false with errno set.
    bool Open(const std::string& path);

    // Reads until `length` bytes are in or the archive ends: a pipe that delivers odd pieces must not shift the block
    // grid. Returns the bytes read, or -1 with errno set when the first read fails.
    ssize_t Read(char* buffer, std::size_t length);

    // Moves on by `count` bytes rounded up to whole blocks, by seeking where that works and else by reading. Returns
    // false when the archive ends before or cannot be read; `failures` receives what happened, in order, also where
    // seeking failed and reading did it.
    bool Skip(std::int64_t count, std::vector<SkipFailure>& failures);

    // Begins an entry's data at the current position.
    void BeginEntry(std::int64_t size);
    // Sets `data` to the next data bytes, at most `room.size()` (a multiple of 512): in `room`, or in the reader's own
    // memory until its next call. Empty at the end of the entry and where the archive ends early. Returns false with
    // errno set when a read failed. The padding is read with the last data, so that the archive's position stays on
    // the block grid.
    bool ReadData(std::span<char> room, std::string_view& data);
    // Moves the next data bytes to a socket that does not block, where the page cache has them or reads go through it
    // anyway. Returns how many; 0 when ReadData() has to deliver the next ones; -1 with errno set when the socket takes
    // none.
    ssize_t ForwardData(int socket);
    // How many bytes ReadData() asks for when it has `room` bytes.
    std::size_t WantedBytes(std::size_t room) const;
    // Data bytes not yet delivered; below 0 once the padding of the last block has been read.
    std::int64_t Left() const { return left_; }

private:
    std::int64_t ToBlockEnd(std::int64_t count) const;
    std::int64_t CountCached(std::int64_t length);
    ssize_t ReadFromCache(char* buffer, std::size_t length);
    std::string_view ReadAheadOf(std::span<char> room);
    ssize_t ReadSomeAt(char* buffer, std::size_t length);
    bool StopDirectReads();

    Descriptor descriptor_;
    Descriptor cached_;       // the same file without direct I/O; open while the cache is worth asking
    bool is_direct_ = false;  // reads bypass the page cache
    bool has_offset_ = false; // a file of our own, read at `offset_`; its own position is not used
    std::int64_t offset_ = 0;
    std::int64_t left_ = 0;
    ReadAhead ahead_;
};
