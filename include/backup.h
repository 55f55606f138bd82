// Backup: lists the server into an object tree, plans from it one tree per kind of object, and saves each of these in a
// worker thread of its own into one archive.
//
// The main thread builds all trees before a worker starts; a worker reads only the tree of its kind. Workers share the
// archive and the log.

#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "ftp.h"
#include "local_time.h"
#include "run_report.h"
#include "settings.h"
#include "tree.h"

// What the listing callback works with, from one listing to the next of an include list.
struct ListingContext {
    const Settings& settings;
    ListingTotals totals{};
    std::string carry{}; // the start of a line whose end is in the next chunk
    std::string path{};  // of the directory being listed, without a trailing slash ("/" for the server's root)
    bool found = false;  // an entry was appended to the tree
    ObjectNode* directory = nullptr; // entries are appended below it
    int parse_errors = 0;            // lines of the current listing that failed to parse
    std::optional<std::tm> now{};    // local time at the listing's start, which dates without a year refer to
    LocalTimes times{};              // of entries
    std::string entry_name{};        // "/" and the name of the current entry; kept for its storage
};

// Prepares the context for a listing of its path into `directory`.
void BeginListing(ListingContext& context, ObjectNode& directory);

// The DataCallback of a listing: adds whole lines, in the server's Unix long form, to the tree. A line that fails to
// parse is logged and counted in the context, and its directory marked partial. Returns 0, or -1 without a context. A
// line of more than 4095 characters ends the program with 255.
int ListingCallback(void* context, char* data, int* length);

// A DataCallback for RETR: appends the data to the archive of an ArchiveWriter. Leaves in `*count` what was not
// consumed. Returns 1 when that is anything, so that the transfer ends; -1 without a writer; else 0.
int ArchiveWriteCallback(void* writer, char* buffer, int* count);

// The run mode. Returns the exit status: 0; 1 with failures or parse errors, 2 when they are 10 % and more; -1 when the
// archive or another file of the run cannot be made or made safe, or a list not be built; TerminatedStatus when
// termination was requested.
int BackupDriver(FtpSession* session, const Settings& settings);
