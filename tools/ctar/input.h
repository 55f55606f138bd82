// The archive being read, front to back, from a file or a pipe. It is never opened for writing. Read errors throw
// Failure with the offset; the end of the input is not an error here.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "ctar.h"
#include "resources.h"

namespace ctar {

enum class Access {
    Forward, // read once, in order: a pipe will do, and "-" is standard input
    Random,  // a file or a block device, for Seek and ReadBlockAt
};

// Whether a backup is writing to that file.
bool IsBeingWritten(const struct stat& file);

class Input {
public:
    // Throws Failure when the file cannot be opened or does not allow `access`. Prints a warning when a backup is
    // writing to it.
    Input(const std::string& path, Access access);

    // The next bytes, at most `most`, valid until the next call; empty only at the end.
    std::span<const char> Read(std::int64_t most);
    // Fills the block as far as the input goes and returns the number of bytes read.
    std::size_t ReadBlock(CtarBlock& block);
    // Skips `count` bytes, without reading them where possible, and returns how many of them exist.
    std::int64_t Skip(std::int64_t count);

    // Require: IsSeekable().
    void Seek(std::int64_t offset);
    std::size_t ReadBlockAt(std::int64_t offset, CtarBlock& block); // like ReadBlock; does not change Offset()

    bool IsSeekable() const { return size_ >= 0; }
    std::int64_t Offset() const { return offset_; }
    std::int64_t Size() const { return size_; } // bytes, -1 if unknown
    // Whether `count` bytes follow Offset(), as far as that is known without reading them.
    bool MayContain(std::int64_t count) const { return size_ < 0 || count <= size_ - offset_; }
    const std::string& Name() const { return name_; }           // for messages
    bool IsBackupRunning() const { return is_backup_running_; } // a backup is writing to it
    // Whether `path` is this very file, through whatever links.
    bool IsSameFile(const std::string& path) const;

private:
    std::size_t ReadAt(std::int64_t offset, char* bytes, std::size_t most);

    std::string name_;
    Descriptor descriptor_;
    struct stat status_ {};
    bool is_backup_running_ = false;
    std::int64_t size_ = -1;
    std::int64_t offset_ = 0; // of the next byte that Read() returns
    std::vector<char> buffer_;
    std::size_t window_;     // bytes to read next: few after a jump, more with each read in order
    std::size_t filled_ = 0; // bytes in the buffer
    std::size_t used_ = 0;   // of these, already returned
};

} // namespace ctar
