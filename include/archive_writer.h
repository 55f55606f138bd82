// Writing a CTAR archive (its format is in ctar.h): open, append data, close an entry, cut back, flush. A silent part:
// it returns what failed, and the module that drives it logs that.
//
// Between entries the file is always a valid archive: entries, then one sentinel. An entry's data is appended after
// that sentinel, in whole blocks; closing the entry pads the last block, writes a new sentinel after the data, and only
// then the entry's header over the old sentinel. A program that dies before that last write leaves an archive that ends
// at the old sentinel. So does an entry that is never closed, because the connection broke: its data follow the
// sentinel. And after a failed step of CloseEntry the last header may claim data that are not there.
//
// Several workers share one ArchiveFile and append to it one at a time: whoever appends holds `appending`. Each has an
// ArchiveWriter of its own.

#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include "ctar.h"
#include "resources.h"

struct ArchiveFile {
    Descriptor descriptor;
    std::mutex appending; // guards the position and the end of the file; held from before an entry's data to its close
};

// One entry being appended.
struct ArchiveWriter {
    ArchiveFile& file;
    CtarBlock block{};      // the block being gathered
    int pending = 0;        // bytes waiting in it, 512 after it could not be written
    std::int64_t bytes = 0; // data bytes written, in whole blocks; once the entry is closed, its size
};

enum class ArchiveStep {
    Write,      // a gathered block
    ShortWrite, // a write took part of a block, which has been cut off again
    BulkWrite,  // whole blocks straight from the caller's buffer
    Seek,
    Cut,
    Sentinel,
    Header,
};

struct ArchiveFailure {
    ArchiveStep step{};
    int error = 0;              // errno of the step
    int wanted = 0;             // bytes, of a short write
    int written = 0;            // bytes, or the result of a bulk write
    const char* from = nullptr; // the buffer of a bulk write
};
// In the order in which they happened; empty when all went well.
using ArchiveFailures = std::vector<ArchiveFailure>;

// What a log line says of the failure, such as "ftruncate64(): Read-only file system".
std::string DescribeFailure(const ArchiveFailure& failure);

// Whether a failure of these steps loses the entry: any but those of a cut, which follows another failure or
// removes an empty entry.
bool LosesEntry(const ArchiveFailures& failures);

// Opens the archive for this run alone and cuts it to zero. The descriptor stays closed, with errno set, when that
// fails: to EWOULDBLOCK while another run writes the same file.
void OpenArchive(ArchiveFile& file, const std::string& path);

// Writes the first sentinel. After a failure the archive is empty; appending entries to it would fail too.
ArchiveFailures BeginArchive(ArchiveFile& file);

// Positions the file where the data of the next entry goes: its end. Returns that offset, or -1 with errno set.
off_t BeginEntry(ArchiveWriter& writer);

// Appends at the file's position, in whole blocks; at most 511 bytes wait in the writer for the next call. `count`
// comes back as the number of bytes that were not consumed, 0 unless a write failed. A gathered block that could
// not be written stays pending.
ArchiveFailures AppendData(ArchiveWriter& writer, const char* data, int& count);

// Closes the entry whose data begins at `start`, under the header that `build_header` makes for its size. An entry
// without data is cut off, and no header is built: `writer.bytes` is then 0 or less. A failed step cuts the archive
// back to `start`; the steps after it are still taken.
ArchiveFailures CloseEntry(ArchiveWriter& writer, off_t start,
                           const std::function<CtarBlock(std::int64_t size)>& build_header);

// Cuts the archive at `offset` and leaves the position there.
ArchiveFailures CutBack(ArchiveFile& file, off_t offset);

// Brings the archive to stable storage. Returns 0, or errno. A device that keeps nothing (EINVAL) has nothing to flush.
int FlushArchive(const ArchiveFile& file);
