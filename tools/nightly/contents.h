// What an archive contains, read header by header, and the digests of its entries.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctar/catalog.h"

namespace nightly {

struct EntryFacts {
    std::string path;        // of the object, without the suffix of directories
    std::string name;        // as stored
    std::int64_t offset = 0; // of the header
    std::int64_t size = 0;   // bytes of data
    std::string digest;      // SHA-256 of the data, if asked for
};

struct ArchiveContents {
    std::vector<EntryFacts> entries; // those before a fault, if there is one
    std::string fault;               // why the archive is not sound, with the offset; "" when it is
};

enum class Digests { Skip, Compute };

// Reads every header and checks every length; with digests, all the data. Throws Failure when the file cannot be
// opened.
ArchiveContents ReadArchive(const std::string& path, Digests digests);

// Lines as `ctar sum` writes them. Requires: the contents have digests.
std::string SumsText(const ArchiveContents& contents);
// Appends the entries that a file of such lines names. Throws Failure when it cannot be read, or at a line that is
// malformed or out of order; the entries before that are there.
void ReadSums(const std::string& path, std::vector<EntryFacts>& entries);

} // namespace nightly
