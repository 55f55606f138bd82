// Restore: reads an archive, from a file or a pipe, entry by entry, and has the server put each wanted object back.
// Runs in the main thread over the main session.

#pragma once

#include "archive_reader.h"
#include "ftp.h"
#include "settings.h"

// The entry whose data an upload sends.
struct RestoredEntry {
    EntryReader data;
    const char* archive_path; // for messages
};

// The DataCallback for STOR: delivers the data of a RestoredEntry. An archive that ends early ends the data. Returns 0,
// or -1 after a failed read.
int ArchiveReadCallback(void* entry, char* buffer, int* count);

// The run mode. Returns 0 or -1: a later entry that is restored or skipped hides an earlier failure. Returns
// TerminatedStatus when termination was requested.
int RestoreArchive(FtpSession* session, const Settings& settings);
