// Restore: reads an archive, from a file or a pipe, entry by entry, and has the server put each wanted object
// back. Runs in the main thread over the main session.

#pragma once

#include <cstdint>

#include "ftp.h"
#include "read_ahead.h"

// Feeds the data of one entry to the upload.
struct ArchiveReader {
    int descriptor = -1;
    int calls = 0;
    std::int64_t left = 0; // data bytes not yet delivered; falls below 0 with the padding of the last block
    std::int64_t size = 0; // of the entry
    ReadAhead ahead{};     // begun for large entries in files
};

// The DataCallback for STOR. Always takes an entry's padding with its last data, so that the archive's
// position stays on a block boundary. An archive that ends early ends the data. Gives 0, or -1 after a failed
// read.
int ArchiveReadCallback(void* reader, char* buffer, int* count);

// Moves on by `count` bytes rounded up to whole blocks, by seeking where that works, else by reading. Gives
// 0, or -1 when the archive ends before.
int SkipArchiveData(int descriptor, std::int64_t count);

// The run mode. Gives 0 or -1; a failed entry is made good by any later one that is restored or skipped. Ends
// the process with 143 when termination was requested.
int RestoreArchive(FtpSession* session);
