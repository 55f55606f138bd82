// Restore: reads an archive, from a file or a pipe, entry by entry, and has the server put each wanted object back.
// Runs in the main thread over the main session.

#pragma once

#include <string>

#include "archive_reader.h"
#include "ftp.h"
#include "settings.h"

// The archive whose current entry an upload sends.
struct RestoredArchive {
    ArchiveReader reader;
    std::string path; // for messages
};

// The DataSource of an upload: the data of the current entry of a RestoredArchive. An archive that ends early ends the
// data. Returns 0, or -1 after logging why a read failed.
int SupplyEntryData(void* archive, std::span<char> room, std::string_view& data);
// The DataForwarder beside it, for what the page cache has.
ssize_t ForwardEntryData(void* archive, int socket);

// The run mode. Returns 0 or -1: a later entry that is restored or skipped hides an earlier failure. Returns
// TerminatedStatus when termination was requested.
int RestoreArchive(FtpSession* session, const Settings& settings);
