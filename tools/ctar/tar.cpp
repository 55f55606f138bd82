#include "tar.h"

#include <cerrno>
#include <cstring>

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include "messages.h"
#include "resources.h"

namespace ctar {

namespace {

struct EntryCloser {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

// A warning is not a failure: it is about names that are not UTF-8, which are stored as bytes.
void Require(archive* tar, la_ssize_t result) {
    if (result < ARCHIVE_WARN)
        throw Failure(std::string("standard output: ") + archive_error_string(tar));
}

// Freeing a tar archive that was not closed pads its last file and writes an end, as if it were complete. `abandoned`
// prevents that.
la_ssize_t WriteOut(archive* tar, void* abandoned, const void* bytes, std::size_t count) {
    if (*static_cast<const bool*>(abandoned))
        return ARCHIVE_FATAL;
    const ssize_t written = WriteSome(STDOUT_FILENO, bytes, count);
    if (written < 0)
        archive_set_error(tar, errno, "%s", std::strerror(errno));
    return written;
}

} // namespace

void TarWriter::Closer::operator()(archive* tar) const {
    archive_write_free(tar);
}

TarWriter::TarWriter() : tar_(archive_write_new()) {
    Require(tar_.get(), archive_write_set_format_pax_restricted(tar_.get()));
    Require(tar_.get(), archive_write_open(tar_.get(), &is_abandoned_, nullptr, WriteOut, nullptr));
}

void TarWriter::BeginFile(const std::string& name, unsigned permissions, std::time_t mtime, std::int64_t size) {
    const std::unique_ptr<archive_entry, EntryCloser> header(archive_entry_new());
    archive_entry_set_pathname(header.get(), name.c_str());
    archive_entry_set_filetype(header.get(), AE_IFREG);
    archive_entry_set_perm(header.get(), permissions);
    archive_entry_set_mtime(header.get(), mtime, 0);
    archive_entry_set_size(header.get(), size);
    Require(tar_.get(), archive_write_header(tar_.get(), header.get()));
}

void TarWriter::Write(std::span<const char> bytes) {
    Require(tar_.get(), archive_write_data(tar_.get(), bytes.data(), bytes.size()));
}

void TarWriter::Close() {
    Require(tar_.get(), archive_write_close(tar_.get()));
}

} // namespace ctar
