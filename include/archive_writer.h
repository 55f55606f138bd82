// Writing the archive: what the retrieval in the session layer needs of the backup module, which defines it.
//
// Workers share one archive descriptor and append to it one at a time (see ArchiveLockGuard in ftp.h); each
// has a writer of its own, so nothing here locks.

#pragma once

#include <cstdint>

#include <sys/types.h>

#include "ctar.h"
#include "support.h"
#include "tree.h"

// One worker's writer. The dispatcher clears pending, calls and bytes before each object.
struct ArchiveWriter {
    int descriptor = -1;       // the archive's, opened once by the driver
    CtarBlock block{};         // the block being gathered
    int pending = 0;           // bytes waiting in it
    std::uint64_t objects = 0; // handed to the dispatcher
    std::uint64_t failures = 0;
    std::uint64_t calls = 0; // of ArchiveWriteCallback, for the current object
    std::int64_t bytes = 0;  // written for the current object; once its entry is closed, the entry's size
};

// A DataCallback for RETR: appends `*count` bytes at the archive's position in whole blocks, at most 511
// bytes waiting for the next call. Leaves in `*count` what was not consumed; gives 1 when that is anything,
// so that the transfer ends, -1 without a writer, else 0. A gathered block that could not be written stays
// pending.
int ArchiveWriteCallback(void* writer, char* buffer, int* count);

// Writes one block at the archive's position; reports anything else than a whole block under the caller's
// name and then leaves the position where it was, so that a retry writes the same place.
bool WriteArchiveBlock(int descriptor, const CtarBlock& block, SourcePlace place = SourcePlace::Here());

// Cuts the archive at `offset` and leaves the position there. Gives 0, or -1 after a message.
int TruncateArchive(int descriptor, off_t offset);

// The header of an object's entry; reports a name too long for it, which is then stored cut.
CtarBlock BuildCtarHeader(const ObjectFile& object, std::uint64_t size);
