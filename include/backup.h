// Backup: what is to be saved is found by listing the server into an object tree, sorted into one tree per
// kind of object, and saved by one worker thread per kind into one archive.
//
// The main thread builds all trees before a worker starts; a worker reads its own kind tree only. Workers
// share the archive and the log.

#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ftp.h"
#include "tree.h"

// What the listing callback works with, from one listing to the next of an include list.
struct ListingContext {
    std::string carry;  // the start of a line whose end is in the next chunk
    std::string path;   // of the directory being listed, without a trailing slash ("/" for the server's root)
    bool found = false; // an entry was appended to the tree
    ObjectNode* directory = nullptr; // entries are appended below it
    int parse_errors = 0;            // lines of the current listing that failed to parse
    std::optional<std::tm> now;      // local time at the listing's start, which dates without a year refer to
    std::string entry_name;          // "/" and the name of the entry in hand; kept for its storage
};

// Counters of the run, written before the workers start.
struct ListingTotals {
    std::uint64_t list_calls = 0;
    std::uint64_t parse_errors = 0; // lines that failed to parse, and failed listings that cost objects
    std::uint64_t objects_found = 0;
    double list_bytes = 0;
};
extern ListingTotals RunListingTotals;

// Makes the context ready for a listing of its path into `directory`.
void BeginListing(ListingContext& context, ObjectNode& directory);

// The DataCallback of a listing: takes whole lines, in the server's Unix long form, into the tree. A line
// that fails to parse is reported and counted in the context, and its directory marked partial. Gives 0, or
// -1 without a context. A line that is longer than 4095 characters ends the program with 255.
int ListingCallback(void* context, char* data, int* length);

// Lists a directory and all below it. `context.path` holds the path of its parent and comes back so. Gives the sum of
// the parse errors of its listings, where a listing below that failed counts as -1; -1 when its own listing failed.
int WalkDirectory(FtpSession* session, ObjectNode& dir, ListingContext& context);

// Finds everything that the include paths name. Gives nothing after a failure, which is reported.
ObjectTree BuildIncludeList(FtpSession* session);

// One root per kind of object. The objects below are borrowed from the include tree, which must live longer.
using KindTrees = std::array<ObjectTree, ObjectKindCount>;
KindTrees BuildBackupList(const ObjectNode& include_tree);

// What a worker did, and in sum the run.
struct BackupTotals {
    std::uint64_t attempted = 0; // objects
    std::uint64_t failed = 0;    // as printed: a directory that fails sets it to its own count, whatever it was
    TransferStats seconds;
    std::uint64_t bytes = 0;    // archived
    std::uint64_t failures = 0; // every one, a directory as one

    BackupTotals& operator+=(const BackupTotals& other);
};

// Saves one object and writes its report lines. Adds its seconds to the totals. Gives 0, or 1 when it failed.
int ProcessObject(FtpSession* session, ObjectFile& object, std::uint32_t number, ArchiveWriter& writer,
                  BackupTotals& totals);

// Saves every object of a kind tree into the archive. Gives 0, or -1 when the archive is not open.
int SaveBlock(FtpSession* session, const ObjectNode& kind_tree, std::uint32_t number, int archive,
              BackupTotals& totals);

// The run mode. Gives the exit status: 0, 1 with failures or parse errors, 2 when they are 10 % and more, -1 when
// the archive or another file of the run cannot be made or made safe, or a list not be built. Ends the process with
// 143 when termination was requested.
int BackupDriver(FtpSession* session);
